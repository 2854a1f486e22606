#include "fit/kernel_bank.h"

#include <gtest/gtest.h>

#include <cmath>
#include <numeric>
#include <vector>

namespace marlith {
namespace {

double Sum(const KernelDescriptor& k) {
  return std::accumulate(k.kernel.begin(), k.kernel.end(), 0.0);
}

TEST(KernelBank, HoldsTheSmoothingKernelsByIdAndNothingElse) {
  buildKernelBank();
  const int sizes[][2] = {{1, 3}, {2, 5}, {3, 9}, {4, 17}, {5, 17}, {6, 17}};
  for (auto [id, size] : sizes) {
    const KernelDescriptor* k = smoothingKernel(id);
    ASSERT_NE(k, nullptr) << id;
    EXPECT_EQ(k->width, size);
    EXPECT_EQ(k->height, size);
    EXPECT_NEAR(Sum(*k), 1.0, 1e-14) << id;
    // Symmetric under both flips.
    for (int y = 0; y < size; ++y)
      for (int x = 0; x < size; ++x)
        EXPECT_DOUBLE_EQ(k->kernel[y * size + x],
                         k->kernel[(size - 1 - y) * size + (size - 1 - x)]);
  }
  // Id 1 is the outer product of (1, 2, 1) / 4.
  const auto& b3 = smoothingKernel(1)->kernel;
  EXPECT_EQ(b3[0], 1.0 / 16);
  EXPECT_EQ(b3[1], 2.0 / 16);
  EXPECT_EQ(b3[4], 4.0 / 16);
  // Gaussian 3: neighbouring taps on the centre row fall as exp(-1 / (2 sigma^2)), sigma 1.465.
  const auto& g3 = smoothingKernel(3)->kernel;
  EXPECT_NEAR(g3[4 * 9 + 5] / g3[4 * 9 + 4], std::exp(-1.0 / (2 * 1.465 * 1.465)), 1e-12);
  // The 5 x 5 binomial is the outer product of (1, 4, 6, 4, 1) / 16.
  EXPECT_DOUBLE_EQ(smoothingKernel(2)->kernel[2 * 5 + 1], 6.0 * 4.0 / 256.0);
  // Gaussian 6: neighbouring taps on the centre row fall as exp(-1 / (2 sigma^2)), sigma 3.1.
  const auto& g = smoothingKernel(6)->kernel;
  EXPECT_NEAR(g[8 * 17 + 9] / g[8 * 17 + 8], std::exp(-1.0 / (2 * 3.1 * 3.1)), 1e-12);
  ASSERT_NE(smoothingKernel(1024), nullptr);
  EXPECT_TRUE(smoothingKernel(1024)->empty());
  EXPECT_EQ(smoothingKernel(7), nullptr);
  EXPECT_EQ(smoothingKernel(0), nullptr);
}

}  // namespace
}  // namespace marlith
