#include <gtest/gtest.h>

#include <regex>

#include "bench/synthesis.h"
#include "support/test_support.h"

namespace marlith::test {
namespace {

const char* const kUsage =
    "Usage: marlith.exe inputImageFile kernelFile outputImageFile boundaryType noiseStr "
    "localPriorWeight \n";
const std::regex kTimeLine(R"(time cost : \d+\.\d{6}\n)");

// A small grey image and a 3 x 3 kernel image in dir.
void WriteInputs(const TempDir& dir) {
  synthesis::ImagePlanes image{std::vector<double>(24 * 16, 0.3), 24, 16, 1};
  for (int y = 4; y < 12; ++y)
    for (int x = 6; x < 18; ++x) image.planes[y * 24 + x] = 0.7;
  synthesis::WriteImagePlanes(dir / "in.png", image);
  synthesis::WriteImagePlanes(dir / "k.png", {{0, 0.5, 0, 0.5, 1, 0.5, 0, 0.5, 0}, 3, 3, 1});
}

TEST(CommandLine, ShortCommandLinesPrintTheUsageLineOnlyAndFail) {
  for (const std::vector<std::string>& args :
       {std::vector<std::string>{}, {"a"}, {"a", "b"}, {"a", "b", "c"}}) {
    const ProcessResult r = RunProcess(MarlithExe(), args);
    EXPECT_EQ(r.out, kUsage);
    EXPECT_EQ(r.exitCode, 255);  // -1 as an exit status
  }
}

TEST(CommandLine, FourArgumentsAreEnoughAndMissingNumbersReadAsZero) {
  TempDir dir;
  WriteInputs(dir);
  const ProcessResult r =
      RunProcess(MarlithExe(), {dir / "in.png", dir / "k.png", dir / "o.png", "0"});
  EXPECT_EQ(r.exitCode, 0) << r.out << r.err;
  EXPECT_TRUE(std::regex_match(r.out, kTimeLine)) << r.out;
  EXPECT_TRUE(std::filesystem::exists(dir / "o.png"));
}

}  // namespace
}  // namespace marlith::test
