#include "fit/thin_plate_fit.h"

#include <gtest/gtest.h>

#include <cmath>
#include <random>

#include "fit/kernel_bank.h"
#include "fit/plane_filter.h"
#include "marlith/error.hpp"
#include "support/test_support.h"

namespace marlith {
namespace {

std::vector<double> Multiply(const SparseMatrixCSR& m, const std::vector<double>& x) {
  std::vector<double> y(m.rows, 0.0);
  for (int r = 0; r < m.rows; ++r)
    for (int e = m.rowStarts[r] - 1; e < m.rowStarts[r + 1] - 1; ++e)
      y[r] += m.values[e] * x[m.columnIndices[e] - 1];
  return y;
}

TEST(BuildFilterMatrix, ActsAsFilterPlaneWithEdgeReplication) {
  const int W = 7, H = 5;
  const auto x = test::RandomValues(W * H, 1);
  for (int orientation : {1, 2}) {
    const auto k = test::RandomValues(4 * 3, 2);
    const SparseMatrixCSR m = buildFilterMatrix(k, 4, 3, orientation, W, H);
    ASSERT_EQ(m.rows, W * H);
    ASSERT_EQ(m.rowStarts.front(), 1);
    ASSERT_EQ(m.rowStarts.back(), m.nonZeros + 1);
    ASSERT_EQ(static_cast<int>(m.values.size()), m.nonZeros);
    for (int c : m.columnIndices) ASSERT_TRUE(c >= 1 && c <= W * H);
    std::vector<double> filtered(W * H);
    filterPlane({x, filtered, W, H, 1.0, k, 4, 3, kBoundaryReplicate, orientation});
    const auto product = Multiply(m, x);
    for (int i = 0; i < W * H; ++i) EXPECT_NEAR(product[i], filtered[i], 1e-13);
  }
}

TEST(BuildFilterMatrix, MergesClampedTapsAndDropsZeroSums) {
  // Taps 1 at offset -1 and -1 at offset 0 (the third is zero and not a tap): at column 0 both
  // land on column 0 and cancel, so row 0 is empty; row 1 holds column 0 then column 1.
  const SparseMatrixCSR m = buildFilterMatrix(std::vector<double>{1, -1, 0}, 3, 1, 2, 4, 1);
  EXPECT_EQ(m.rowStarts[1] - m.rowStarts[0], 0);
  ASSERT_EQ(m.rowStarts[2] - m.rowStarts[1], 2);
  EXPECT_EQ(m.columnIndices[m.rowStarts[1] - 1], 1);
  EXPECT_EQ(m.values[m.rowStarts[1] - 1], 1.0);
  EXPECT_EQ(m.columnIndices[m.rowStarts[1]], 2);
  EXPECT_EQ(m.values[m.rowStarts[1]], -1.0);
  EXPECT_EQ(m.nonZeros, 6);
  // The thin-plate stencil: 13 entries inside, fewer where clamped taps merge at the corner.
  const SparseMatrixCSR b = buildFilterMatrix(thinPlateStencil(), 5, 5, 2, 9, 9);
  EXPECT_EQ(b.rowStarts[4 * 9 + 4 + 1] - b.rowStarts[4 * 9 + 4], 13);
  EXPECT_LT(b.rowStarts[1] - b.rowStarts[0], 13);
}

TEST(FitThinPlate, SolvesTheWeightedSystem) {
  const int W = 12, H = 9;
  const auto d = test::RandomValues(W * H, 3);
  const auto w = test::RandomValues(W * H, 4, 0.0, 1.0);
  std::vector<double> x(W * H);
  fitThinPlate({d, x, w, W, H});
  // (B + diag(w)) x - w d, with B x from the filter itself.
  std::vector<double> bx(W * H);
  filterPlane({x, bx, W, H, 1.0, thinPlateStencil(), 5, 5, kBoundaryReplicate, kCorrelation});
  double residual = 0.0, scale = 0.0;
  for (int i = 0; i < W * H; ++i) {
    residual = std::max(residual, std::fabs(bx[i] + w[i] * x[i] - w[i] * d[i]));
    scale = std::max(scale, std::fabs(w[i] * d[i]));
  }
  EXPECT_LT(residual, 1e-10 * scale);
  // In place gives the same plane.
  std::vector<double> inPlace = d;
  fitThinPlate({inPlace, inPlace, w, W, H});
  for (int i = 0; i < W * H; ++i) EXPECT_NEAR(inPlace[i], x[i], 1e-12);
}

TEST(FitThinPlate, FillsGapsInConstantDataWithTheConstantAndRefusesZeroWeights) {
  const int W = 10, H = 8;
  std::vector<double> d(W * H, 0.25), w(W * H, 0.0), x(W * H);
  for (int y = 0; y < H; ++y) w[y * W] = w[y * W + W - 1] = 0.5;  // data only at the sides
  fitThinPlate({d, x, w, W, H});
  for (double v : x) EXPECT_NEAR(v, 0.25, 1e-12);
  std::fill(w.begin(), w.end(), 0.0);
  EXPECT_THROW(fitThinPlate({d, x, w, W, H}), Error);
}

}  // namespace
}  // namespace marlith
