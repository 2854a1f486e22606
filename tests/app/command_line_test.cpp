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

TEST(CommandLine, NonNumericNumbersReadAsZeroAndTheRunProceeds) {
  TempDir dir;
  WriteInputs(dir);
  const ProcessResult r =
      RunProcess(MarlithExe(), {dir / "in.png", dir / "k.png", dir / "o.png", "zero", "x", "y"});
  EXPECT_EQ(r.exitCode, 0) << r.out << r.err;
  EXPECT_TRUE(std::regex_match(r.out, kTimeLine)) << r.out;
  const auto out = synthesis::ReadImagePlanes(dir / "o.png");
  EXPECT_EQ(out.width, 24);
  EXPECT_EQ(out.height, 16);
  EXPECT_EQ(out.channels, 1);
}

TEST(CommandLine, UnloadableInputOrKernelIsNamedThenTimedAndExitsMinusOne) {
  TempDir dir;
  WriteInputs(dir);
  const ProcessResult noInput =
      RunProcess(MarlithExe(), {dir / "none.png", dir / "k.png", dir / "o.png", "0", "1", "1"});
  EXPECT_EQ(noInput.exitCode, 255);
  EXPECT_EQ(noInput.out.substr(0, noInput.out.find('\n') + 1),
            "Cannot load image " + (dir / "none.png") + "\n");
  EXPECT_TRUE(std::regex_match(noInput.out.substr(noInput.out.find('\n') + 1), kTimeLine));
  const ProcessResult noKernel =
      RunProcess(MarlithExe(), {dir / "in.png", dir / "none.bmp", dir / "o.png", "0", "1", "1"});
  EXPECT_EQ(noKernel.exitCode, 255);
  EXPECT_EQ(noKernel.out.rfind("Cannot load image " + (dir / "none.bmp") + "\n", 0), 0u);
  EXPECT_FALSE(std::filesystem::exists(dir / "o.png"));
}

TEST(CommandLine, AllBlackKernelIsRefusedAndWritesNothing) {
  TempDir dir;
  WriteInputs(dir);
  synthesis::WriteImagePlanes(dir / "black.png", {std::vector<double>(9, 0.0), 3, 3, 1});
  const ProcessResult r =
      RunProcess(MarlithExe(), {dir / "in.png", dir / "black.png", dir / "o.png", "0", "1", "1"});
  EXPECT_EQ(r.exitCode, 255);
  const std::string first = r.out.substr(0, r.out.find('\n'));
  EXPECT_NE(first.find("kernel"), std::string::npos) << r.out;
  EXPECT_TRUE(std::regex_match(r.out.substr(r.out.find('\n') + 1), kTimeLine)) << r.out;
  EXPECT_FALSE(std::filesystem::exists(dir / "o.png"));
}

TEST(CommandLine, UnwritableOutputKeepsResultZeroAndWarnsOnStandardError) {
  TempDir dir;
  WriteInputs(dir);
  const ProcessResult r = RunProcess(
      MarlithExe(), {dir / "in.png", dir / "k.png", dir / "missing/o.png", "0", "1", "1"});
  EXPECT_EQ(r.exitCode, 0);
  EXPECT_TRUE(std::regex_match(r.out, kTimeLine)) << r.out;
  EXPECT_EQ(std::count(r.err.begin(), r.err.end(), '\n'), 1) << r.err;
  EXPECT_NE(r.err.find("missing/o.png"), std::string::npos) << r.err;
}

}  // namespace
}  // namespace marlith::test
