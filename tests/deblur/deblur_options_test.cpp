// marlith-deblur's option parser: every option reaches the API's record, in every GNU form.
// Refusals are tested end to end (deblur_command_test.cpp) and fuzzed.
#include "deblur/deblur_options.h"

#include <gtest/gtest.h>

#include <functional>
#include <iterator>
#include <sstream>
#include <string>
#include <vector>

namespace marlith {
namespace {

// The command line's arguments, separated by spaces.
ParsedCommandLine Parse(const std::string& line) {
  std::istringstream words("marlith-deblur " + line);
  std::vector<std::string> args{std::istream_iterator<std::string>(words), {}};
  std::vector<const char*> argv;
  for (const auto& a : args) argv.push_back(a.c_str());
  return ParseDeblurCommandLine(static_cast<int>(args.size()), argv.data());
}

TEST(DeblurOptions, MapsEveryOptionOntoTheSettings) {
  struct Row {
    std::string args;
    std::function<bool(const DeblurSettings&)> holds;
  };
  const std::vector<Row> rows = {
      {"--kernel=k.npy --output o.tif --noise 0.05 --boundary periodic --margins=exact "
       "--kernel-origin support --refine-kernel --threads 3 --depth float --jpeg-quality 80 "
       "--jobs 2 --verbose --colorspace linear a.tif",
       [](const DeblurSettings& s) {
         return s.kernelPath == "k.npy" && s.output == "o.tif" && s.engine.noise == 0.05 &&
                s.engine.boundary == Boundary::kPeriodic && s.engine.margins == Margins::kExact &&
                s.engine.kernelOrigin == KernelOrigin::kSupport && s.engine.refineKernel &&
                s.engine.threads == 3 && s.depth == DepthChoice::kFloat && s.jpegQuality == 80 &&
                s.jobs == 2 && s.verbosity == Verbosity::kVerbose &&
                s.colorspace == Colorspace::kLinear;
       }},
      // Short forms, bundled flags, attached values, the last of a repeated option.
      {"-qrk k.csv -n0.2 -n auto -d8 -j 4 -t8 -f .tif --colorspace=srgb a b",
       [](const DeblurSettings& s) {
         return s.kernelPath == "k.csv" && !s.engine.noise && s.engine.refineKernel &&
                s.depth == DepthChoice::k8 && s.jobs == 4 && s.engine.threads == 8 &&
                s.format == "tif" && s.verbosity == Verbosity::kQuiet && s.inputs.size() == 2 &&
                s.colorspace == Colorspace::kSrgb;
       }},
      // "--" ends the options: what follows is an image even when it starts with '-'.
      {"-k k.png --noise 0 --kernel-origin centre --colorspace srgb --colorspace auto -- -odd.png "
       "--noise",
       [](const DeblurSettings& s) {
         return s.inputs == std::vector<std::string>{"-odd.png", "--noise"} &&
                s.engine.noise == 0.0 && s.engine.kernelOrigin == KernelOrigin::kCenter &&
                !s.colorspace;
       }},
  };
  for (const Row& row : rows) {
    const ParsedCommandLine parsed = Parse(row.args);
    ASSERT_EQ(parsed.action, ParsedCommandLine::Action::kRun) << row.args << ": " << parsed.error;
    EXPECT_TRUE(row.holds(parsed.settings)) << row.args;
  }
  EXPECT_EQ(Parse("-k k --help --bogus").action, ParsedCommandLine::Action::kHelp);
  EXPECT_EQ(Parse("-V").action, ParsedCommandLine::Action::kVersion);
}

}  // namespace
}  // namespace marlith
