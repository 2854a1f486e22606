#include <gtest/gtest.h>

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
  std::vector<double> in(16, 0.5), out(16, 0.0), k(9, 0.0);
  // The first null array in order is named; a refused request or kernel gives its reason.
  EXPECT_EQ(Call(nullptr, nullptr, 2, 2, 1, nullptr, 1, 1),
            std::pair(-1, std::string("inputData cannot be NULL.\n")));
  EXPECT_EQ(Call(in.data(), nullptr, 2, 2, 1, nullptr, 1, 1),
            std::pair(-1, std::string("outputData cannot be NULL.\n")));
  EXPECT_EQ(Call(in.data(), in.data(), 2, 2, 1, nullptr, 1, 1),
            std::pair(-1, std::string("kernelData cannot be NULL.\n")));
  struct Case {
    int w, h, c, kw, kh;
    double kernelValue;
  };
  for (const Case& c : {Case{0, 4, 1, 3, 3, 1.0}, Case{65536, 65536, 3, 3, 3, 1.0},
                        Case{4, 4, 1, 3, 3, std::nan("")}}) {
    std::fill(k.begin(), k.end(), c.kernelValue);
    const auto [code, message] = Call(in.data(), out.data(), c.w, c.h, c.c, k.data(), c.kw, c.kh);
    EXPECT_EQ(code, -1);
    EXPECT_EQ(std::count(message.begin(), message.end(), '\n'), 1) << message;
    EXPECT_EQ(message.rfind("marlithDeconvolve: ", 0), 0u) << message;
  }
}

}  // namespace
