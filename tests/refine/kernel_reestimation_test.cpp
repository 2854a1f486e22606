#include "refine/kernel_reestimation.h"

#include <gtest/gtest.h>

#include "refine/kernel_refinement_pass.h"
#include "support/test_support.h"

namespace marlith {
namespace {

TEST(ConvolutionMatrix, TakesBackwardDifferencesWithClampedTapsMerging) {
  // The (0, 1, -1) filter rotated is (-1, 1, 0): D x at p = x(p) - x(p - 1) on a 3 x 2 grid, the
  // tap before the first column (row) clamped onto it, so that its rows cancel to zero.
  const std::vector<double> f = {0.0, 1.0, -1.0};
  for (auto [fw, fh, step] : {std::tuple{3, 1, 1}, std::tuple{1, 3, 3}}) {
    const auto d = convolutionMatrix(f, fw, fh, 3, 2);
    for (int r = 0; r < 6; ++r)
      for (int c = 0; c < 6; ++c) {
        const bool first = fw == 3 ? r % 3 == 0 : r < 3;
        const double expected = first ? 0.0 : c == r ? 1.0 : c == r - step ? -1.0 : 0.0;
        EXPECT_EQ(d[r * 6 + c], expected) << fw << " " << r << "," << c;
      }
  }
}

TEST(BuildNormalEquations, SumsShiftedProductsInsideTheMarginsAndIsEmptyForSmallImages) {
  const int W = 40, H = 36, kw = 3, kh = 3;  // margins 14 columns and 14 rows
  const auto latent = test::RandomValues(2 * W * H, 3, 0.0, 1.0);
  const auto observed = test::RandomValues(2 * W * H, 4, 0.0, 1.0);
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
  EXPECT_EQ(N, std::vector<double>(81, 0.0));
  EXPECT_EQ(h, std::vector<double>(9, 0.0));
}

TEST(CleanKernel, KeepsOnlyEntriesStrictlyAboveATenthOfThePeak) {
  std::vector<double> k = {0.5, 0.05, 0.0501, 0.2, 0.04, 0.0};  // 0.05: exactly a tenth
  CleanKernel(k);
  const double sum = 0.5 + 0.0501 + 0.2;
  EXPECT_EQ(k, (std::vector<double>{0.5 / sum, 0.0, 0.0501 / sum, 0.2 / sum, 0.0, 0.0}));
}

}  // namespace
}  // namespace marlith
