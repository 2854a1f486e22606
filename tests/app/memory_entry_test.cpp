#include <gtest/gtest.h>

#include <cmath>
#include <limits>
#include <vector>

#include "bench/synthesis.h"
#include "marlith/marlith.h"

extern "C" int32_t CallMarlithFromC(const double* in, double* out, int32_t w, int32_t h,
                                    const double* k, int32_t kw, int32_t kh);

namespace {

TEST(MarlithDeconvolve, ReportsOnlyTheFirstNullArrayInOrder) {
  double buffer[4] = {0.5, 0.5, 0.5, 0.5};
  testing::internal::CaptureStdout();
  EXPECT_EQ(marlithDeconvolve(nullptr, nullptr, 2, 2, 1, nullptr, 1, 1, 1, 1, 0), -1);
  EXPECT_EQ(testing::internal::GetCapturedStdout(), "inputData cannot be NULL.\n");
  testing::internal::CaptureStdout();
  EXPECT_EQ(marlithDeconvolve(buffer, nullptr, 2, 2, 1, nullptr, 1, 1, 1, 1, 0), -1);
  EXPECT_EQ(testing::internal::GetCapturedStdout(), "outputData cannot be NULL.\n");
  testing::internal::CaptureStdout();
  EXPECT_EQ(marlithDeconvolve(buffer, buffer, 2, 2, 1, nullptr, 1, 1, 1, 1, 0), -1);
  EXPECT_EQ(testing::internal::GetCapturedStdout(), "kernelData cannot be NULL.\n");
}

TEST(MarlithDeconvolve, RestoresPlanesFromCAndLeavesTheCallersKernelAlone) {
  constexpr int W = 48, H = 40;
  std::vector<double> sharp(W * H, 0.25);
  for (int y = 10; y < 30; ++y)
    for (int x = 8; x < 30; ++x) sharp[y * W + x] = 0.75;
  // An unnormalised kernel is used as given: only its shape matters to the solve after the
  // engine's own handling, so a box of 3s blurs like the unit box.
  std::vector<double> kernel(5 * 5, 3.0);
  std::vector<double> unit(5 * 5, 1.0 / 25);
  const auto blurred = marlith::synthesis::Blur(sharp, W, H, 1, unit, 5, 5,
                                                marlith::synthesis::BlurBorder::kCircular);
  std::vector<double> out(W * H, -1.0);
  const auto kernelBefore = kernel;
  ASSERT_EQ(CallMarlithFromC(blurred.data(), out.data(), W, H, unit.data(), 5, 5), 0);
  EXPECT_EQ(kernel, kernelBefore);
  const double before = marlith::synthesis::Psnr(blurred, sharp, W, H);
  const double after = marlith::synthesis::Psnr(out, sharp, W, H);
  EXPECT_GT(after, before + 3.0) << before << " -> " << after;
}

TEST(MarlithDeconvolve, RefusesBadSizesAndKernelsWithOneLineAndMinusOne) {
  std::vector<double> in(16, 0.5), out(16, 0.0), k(9, 0.0);
  struct Case {
    int w, h, c, kw, kh;
    double kernelValue;
  };
  for (const Case& c :
       {Case{0, 4, 1, 3, 3, 1.0}, Case{4, -1, 1, 3, 3, 1.0}, Case{4, 4, 0, 3, 3, 1.0},
        Case{4, 4, 1, 0, 3, 1.0}, Case{65536, 65536, 3, 3, 3, 1.0}, Case{4, 4, 1, 3, 3, 0.0},
        Case{4, 4, 1, 3, 3, std::numeric_limits<double>::quiet_NaN()}}) {
    std::fill(k.begin(), k.end(), c.kernelValue);
    testing::internal::CaptureStdout();
    EXPECT_EQ(
        marlithDeconvolve(in.data(), out.data(), c.w, c.h, c.c, k.data(), c.kw, c.kh, 1, 1, 0), -1);
    const std::string message = testing::internal::GetCapturedStdout();
    EXPECT_EQ(std::count(message.begin(), message.end(), '\n'), 1) << message;
    EXPECT_EQ(message.rfind("marlithDeconvolve: ", 0), 0u) << message;
  }
}

}  // namespace
