#include <gtest/gtest.h>

#include <regex>

#include "bench/synthesis.h"
#include "support/test_support.h"

namespace marlith::test {
namespace {

TEST(CommandLine, ShortCommandLinesPrintTheUsageLineOnlyAndFourArgumentsAreEnough) {
  for (const std::vector<std::string>& args :
       {std::vector<std::string>{}, {"a"}, {"a", "b"}, {"a", "b", "c"}}) {
    const ProcessResult r = RunProcess(MarlithExe(), args);
    EXPECT_EQ(r.out,
              "Usage: marlith.exe inputImageFile kernelFile outputImageFile boundaryType noiseStr "
              "localPriorWeight \n");
    EXPECT_EQ(r.exitCode, 255);  // -1 as an exit status
  }
  // Missing numbers read as zero.
  TempDir dir;
  synthesis::WriteImagePlanes(dir / "in.png", {std::vector<double>(24 * 16, 0.3), 24, 16, 1});
  synthesis::WriteImagePlanes(dir / "k.png", {{0, 0.5, 0, 0.5, 1, 0.5, 0, 0.5, 0}, 3, 3, 1});
  const ProcessResult r =
      RunProcess(MarlithExe(), {dir / "in.png", dir / "k.png", dir / "o.png", "0"});
  EXPECT_EQ(r.exitCode, 0) << r.out << r.err;
  EXPECT_TRUE(std::regex_match(r.out, std::regex(R"(time cost : \d+\.\d{6}\n)"))) << r.out;
  EXPECT_TRUE(std::filesystem::exists(dir / "o.png"));
}

}  // namespace
}  // namespace marlith::test
