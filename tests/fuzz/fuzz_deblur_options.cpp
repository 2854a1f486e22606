// Fuzz target: marlith-deblur's option parser on arbitrary arguments. The input is split into
// arguments at its zero bytes; the parser must never crash or throw, and settings it accepts
// must be usable.
#include <cmath>
#include <cstdint>
#include <string>
#include <vector>

#include "deblur/deblur_options.h"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  std::vector<std::string> args{"marlith-deblur"};
  std::string current;
  for (size_t i = 0; i < size && args.size() < 64; ++i) {
    if (data[i] == 0) {
      args.push_back(current);
      current.clear();
    } else {
      current += static_cast<char>(data[i]);
    }
  }
  if (!current.empty()) args.push_back(current);
  std::vector<const char*> argv;
  for (const auto& a : args) argv.push_back(a.c_str());
  argv.push_back(nullptr);

  const auto parsed = marlith::ParseDeblurCommandLine(static_cast<int>(args.size()), argv.data());
  using Action = marlith::ParsedCommandLine::Action;
  if (parsed.action == Action::kUsageError && parsed.error.empty()) __builtin_trap();
  if (parsed.action == Action::kRun) {
    const auto& s = parsed.settings;
    const bool usable =
        !s.inputs.empty() && !s.kernelPath.empty() && s.jobs >= 1 && s.engine.threads >= 0 &&
        s.jpegQuality >= 1 && s.jpegQuality <= 100 &&
        (!s.engine.noise || (std::isfinite(*s.engine.noise) && *s.engine.noise >= 0));
    if (!usable) __builtin_trap();
  }
  return 0;
}
