// Finding and opening the GraphicsMagick module (see magick_module.h).
#include <dlfcn.h>

#include <filesystem>
#include <string>
#include <vector>

#include "image/magick_module.h"
#include "marlith/error.hpp"

namespace marlith {
namespace {

constexpr const char* kModuleName = "libmarlith-magick.so";

// Where the module may lie: in the installed library folder, reached from the program's folder
// (the programs are what read and write image files), then where the build tree made it.
std::vector<std::filesystem::path> Candidates() {
  std::vector<std::filesystem::path> paths;
  std::error_code ignored;
  const auto program = std::filesystem::read_symlink("/proc/self/exe", ignored);
  if (!ignored) {
    paths.push_back((program.parent_path() / MARLITH_BIN_TO_LIB_DIR / "marlith" / kModuleName)
                        .lexically_normal());
  }
  paths.emplace_back(MARLITH_MAGICK_MODULE_BUILD_PATH);
  return paths;
}

const MagickModule& Open() {
  std::string tried, why;
  for (const auto& path : Candidates()) {
    tried += (tried.empty() ? "" : ", ") + path.string();
    std::error_code ignored;
    if (!std::filesystem::is_regular_file(path, ignored)) continue;
    if (void* handle = ::dlopen(path.c_str(), RTLD_NOW | RTLD_LOCAL)) {
      using Entry = const MagickModule*();
      if (auto* entry = reinterpret_cast<Entry*>(::dlsym(handle, "marlith_magick_module")))
        return *entry();
      why = path.string() + " is not marlith's GraphicsMagick module";
    } else {
      const char* error = ::dlerror();
      why = error ? error : path.string() + " cannot be opened";
    }
  }
  throw Error(
      "cannot read or write this image: " +
      (why.empty() ? std::string(kModuleName) + " was not found (looked for " + tried + ")" : why));
}

}  // namespace

const MagickModule& Magick() {
  static const MagickModule& module = Open();
  return module;
}

}  // namespace marlith
