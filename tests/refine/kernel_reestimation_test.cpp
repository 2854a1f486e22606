#include "refine/kernel_reestimation.h"

#include <gtest/gtest.h>

#include <random>

#include "refine/kernel_refinement_pass.h"

namespace marlith {
namespace {

TEST(ConvolutionMatrix, TakesBackwardDifferencesWithClampedTapsMerging) {
  // The (0, 1, -1) filter rotated is (-1, 1, 0): D x at p = x(p) - x(p - 1), the left tap
  // clamped onto the grid, so the first column's row cancels to zero.
  const std::vector<double> f = {0.0, 1.0, -1.0};
  const auto dx = convolutionMatrix(f, 3, 1, 3, 2);
  const double expectedX[6][6] = {{0, 0, 0, 0, 0, 0}, {-1, 1, 0, 0, 0, 0}, {0, -1, 1, 0, 0, 0},
                                  {0, 0, 0, 0, 0, 0}, {0, 0, 0, -1, 1, 0}, {0, 0, 0, 0, -1, 1}};
  for (int r = 0; r < 6; ++r)
    for (int c = 0; c < 6; ++c) EXPECT_EQ(dx[r * 6 + c], expectedX[r][c]) << r << "," << c;
  const auto dy = convolutionMatrix(f, 1, 3, 3, 2);
  // Grid 3 x 2: rows of the second grid row take x(p) - x(p above).
  for (int x = 0; x < 3; ++x) {
    EXPECT_EQ(dy[(3 + x) * 6 + 3 + x], 1.0);
    EXPECT_EQ(dy[(3 + x) * 6 + x], -1.0);
    for (int c = 0; c < 6; ++c) EXPECT_EQ(dy[x * 6 + c], 0.0);
  }
}

TEST(BuildNormalEquations, SumsShiftedProductsInsideTheMarginsAndIsEmptyForSmallImages) {
  const int W = 40, H = 36, kw = 3, kh = 3;  // margins 14 columns and 14 rows
  std::mt19937 rng(3);
  std::uniform_real_distribution<double> u(0.0, 1.0);
  std::vector<double> latent(2 * W * H), observed(2 * W * H);
  for (double& v : latent) v = u(rng);
  for (double& v : observed) v = u(rng);
  std::vector<double> N, h;
  buildNormalEquations(observed, latent, W, H, 2, kw, kh, N, h);
  // Entry (i, j) from the definition: offsets (i % 3 - 1, i / 3 - 1).
  auto at = [&](const std::vector<double>& p, int c, int x, int y) {
    return p[(c * H + y) * W + x];
  };
  for (auto [i, j] : {std::pair{0, 8}, std::pair{4, 4}, std::pair{5, 1}}) {
    double n = 0, hh = 0;
    for (int c = 0; c < 2; ++c)
      for (int y = 14; y < H - 14; ++y)
        for (int x = 14; x < W - 14; ++x) {
          const double li = at(latent, c, x + i % 3 - 1, y + i / 3 - 1);
          n += li * at(latent, c, x + j % 3 - 1, y + j / 3 - 1);
          hh += li * at(observed, c, x, y);
        }
    EXPECT_NEAR(N[i * 9 + j], n, 1e-11 * n);
    EXPECT_NEAR(N[j * 9 + i], n, 1e-11 * n);
    EXPECT_NEAR(h[i], hh, 1e-11 * hh);
  }
  buildNormalEquations(observed, latent, 28, 28, 1, kw, kh, N, h);  // no pixel inside
  for (double v : N) EXPECT_EQ(v, 0.0);
  for (double v : h) EXPECT_EQ(v, 0.0);
}

TEST(CleanKernel, KeepsOnlyEntriesStrictlyAboveATenthOfThePeak) {
  std::vector<double> k = {0.5, 0.05, 0.0501, 0.2, 0.04, 0.0};
  CleanKernel(k);
  const double sum = 0.5 + 0.0501 + 0.2;
  EXPECT_DOUBLE_EQ(k[0], 0.5 / sum);
  EXPECT_EQ(k[1], 0.0);  // exactly a tenth of 0.5
  EXPECT_DOUBLE_EQ(k[2], 0.0501 / sum);
  EXPECT_EQ(k[4], 0.0);
}

}  // namespace
}  // namespace marlith
