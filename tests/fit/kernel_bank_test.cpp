#include "fit/kernel_bank.h"

#include <gtest/gtest.h>

#include <cmath>
#include <numeric>

namespace marlith {
namespace {

TEST(KernelBank, HoldsTheSmoothingKernelsByIdAndNothingElse) {
  buildKernelBank();
  // Id, size, and the ratio of the centre row's taps next to and at the centre: binomials
  // (1 2 1) / 4 and (1 4 6 4 1) / 16, Gaussians exp(-1 / (2 sigma^2)).
  auto g = [](double sigma) { return std::exp(-1.0 / (2 * sigma * sigma)); };
  const std::tuple<int, int, double> kernels[] = {{1, 3, 0.5},      {2, 5, 4.0 / 6},
                                                  {3, 9, g(1.465)}, {4, 17, g(2.022)},
                                                  {5, 17, g(2.5)},  {6, 17, g(3.1)}};
  for (auto [id, size, ratio] : kernels) {
    const KernelDescriptor* k = smoothingKernel(id);
    ASSERT_NE(k, nullptr) << id;
    ASSERT_EQ(k->width * 100 + k->height, size * 101) << id;
    EXPECT_NEAR(std::accumulate(k->kernel.begin(), k->kernel.end(), 0.0), 1.0, 1e-14) << id;
    const int c = size / 2 * (size + 1);
    EXPECT_NEAR(k->kernel[c + 1] / k->kernel[c], ratio, 1e-12) << id;
    EXPECT_DOUBLE_EQ(k->kernel[c - size], k->kernel[c + 1]) << id;  // round about the centre
  }
  EXPECT_TRUE(smoothingKernel(1024)->empty());
  EXPECT_EQ(smoothingKernel(7), nullptr);
  EXPECT_EQ(smoothingKernel(0), nullptr);
}

}  // namespace
}  // namespace marlith
