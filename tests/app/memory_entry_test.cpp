#include <gtest/gtest.h>

#include <climits>
#include <cmath>
#include <vector>

#include "bench/synthesis.h"
#include "marlith/marlith.h"

namespace {

// Calls the entry with standard output captured; returns the result code and what it printed.
std::pair<int32_t, std::string> Call(const double* in, double* out, int w, int h, int c,
                                     const double* k, int kw, int kh) {
  testing::internal::CaptureStdout();
  const int32_t code = marlithDeconvolve(in, out, w, h, c, k, kw, kh, 1, 1, 0);
  return {code, testing::internal::GetCapturedStdout()};
}

TEST(MarlithDeconvolve, RestoresPlanesAndLeavesTheCallersKernelAlone) {
  constexpr int W = 48, H = 40;
  std::vector<double> sharp(W * H, 0.25);
  for (int y = 10; y < 30; ++y)
    for (int x = 8; x < 30; ++x) sharp[y * W + x] = 0.75;
  // The kernel handed to the entry, blurred with, and compared after the call: a 7 x 3 smear.
  const std::vector<double> kernel(7 * 3, 1.0 / 21);
  const auto blurred = marlith::synthesis::Blur(sharp, W, H, 1, kernel, 7, 3,
                                                marlith::synthesis::BlurBorder::kCircular);
  std::vector<double> out(W * H, -1.0);
  const auto kernelBefore = kernel;
  ASSERT_EQ(marlithDeconvolve(blurred.data(), out.data(), W, H, 1, kernel.data(), 7, 3, 0.1, 1, 0),
            0);
  EXPECT_EQ(kernel, kernelBefore);
  const double before = marlith::synthesis::Psnr(blurred, sharp, W, H);
  const double after = marlith::synthesis::Psnr(out, sharp, W, H);
  EXPECT_GT(after, before + 3.0) << before << " -> " << after;
}

TEST(MarlithDeconvolve, RefusesNullArraysBadSizesAndKernelsWithOneLineAndMinusOne) {
  std::vector<double> in(64, 0.5), out(64, 0.0), k(9, 0.0);
  // The first null array in order is named; a refused request or kernel gives its reason.
  EXPECT_EQ(Call(nullptr, nullptr, 2, 2, 1, nullptr, 1, 1),
            std::pair(-1, std::string("inputData cannot be NULL.\n")));
  EXPECT_EQ(Call(in.data(), nullptr, 2, 2, 1, nullptr, 1, 1),
            std::pair(-1, std::string("outputData cannot be NULL.\n")));
  EXPECT_EQ(Call(in.data(), in.data(), 2, 2, 1, nullptr, 1, 1),
            std::pair(-1, std::string("kernelData cannot be NULL.\n")));
  struct Case {
    int w, h, c, kw, kh;
    double kernelValue, sample = 0.5;
    const char* says = "";
  };
  constexpr int kMax = INT32_MAX, kGiB = 1 << 30;
  const double nan = std::nan(""), inf = INFINITY;
  // Sizes whose product wraps in 64 bits (2^30 x 2^30 x 16 = 2^64) or overflows int64 are refused
  // by the size check before any memory is taken; a sample that is not finite, or so large that
  // the computation overflows, is refused rather than given back as a result of NaN.
  for (const Case& c : {Case{0, 4, 1, 3, 3, 1.0}, Case{65536, 65536, 3, 3, 3, 1.0},
                        Case{4, 4, 1, 3, 3, nan}, Case{kGiB, kGiB, 16, 3, 3, 1.0, 0.5, "too large"},
                        Case{kMax, kMax, 3, 3, 3, 1.0, 0.5, "too large"},
                        Case{4, 4, 1, kMax, kMax, 1.0, 0.5, "too large"},
                        Case{8, 8, 1, 3, 3, 1.0, nan, "not a finite number"},
                        Case{8, 8, 1, 3, 3, 1.0, -inf, "not a finite number"},
                        Case{8, 8, 1, 3, 3, 1.0, 1e308, "too large to restore"}}) {
    std::fill(k.begin(), k.end(), c.kernelValue);
    std::fill(in.begin(), in.end(), 0.5);
    in[5] = c.sample;
    const auto [code, message] = Call(in.data(), out.data(), c.w, c.h, c.c, k.data(), c.kw, c.kh);
    EXPECT_EQ(code, -1);
    EXPECT_EQ(std::count(message.begin(), message.end(), '\n'), 1) << message;
    EXPECT_EQ(message.rfind("marlithDeconvolve: ", 0), 0u) << message;
    EXPECT_NE(message.find(c.says), std::string::npos) << message;
  }
}

}  // namespace
