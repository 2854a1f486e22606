#include "fit/thin_plate_fit.h"

#include <gtest/gtest.h>

#include <algorithm>
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

// B x straight from the stencil's definition: the 5 x 5 biharmonic taps (the value 20 at the
// centre, -8 on the four neighbours, 2 on the diagonals, 1 two steps out), neighbours clamped
// into the plane.
std::vector<double> BiharmonicTimes(const std::vector<double>& x, int W, int H) {
  struct Tap {
    int dx, dy;
    double v;
  };
  const Tap taps[] = {{0, 0, 20},  {-1, 0, -8}, {1, 0, -8}, {0, -1, -8}, {0, 1, -8},
                      {-1, -1, 2}, {1, -1, 2},  {-1, 1, 2}, {1, 1, 2},   {-2, 0, 1},
                      {2, 0, 1},   {0, -2, 1},  {0, 2, 1}};
  std::vector<double> y(W * H, 0.0);
  for (int r = 0; r < H; ++r)
    for (int c = 0; c < W; ++c)
      for (const Tap& t : taps) {
        const int rr = std::clamp(r + t.dy, 0, H - 1), cc = std::clamp(c + t.dx, 0, W - 1);
        y[r * W + c] += t.v * x[rr * W + cc];
      }
  return y;
}

TEST(FitThinPlate, SolvesTheWeightedSystem) {
  const int W = 12, H = 9;
  const auto d = test::RandomValues(W * H, 3);
  const auto w = test::RandomValues(W * H, 4, 0.0, 1.0);
  std::vector<double> x(W * H);
  fitThinPlate({d, x, w, W, H});
  // (B + diag(w)) x - w d, with B x from the stencil's definition.
  const auto bx = BiharmonicTimes(x, W, H);
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
  // Also on a plane large enough that rounding hides the zero pivots.
  const std::vector<double> zeros(240 * 200, 0.0);
  std::vector<double> big(zeros.size());
  EXPECT_THROW(fitThinPlate({zeros, big, zeros, 240, 200}), Error);
}

TEST(FitThinPlate, OnOnePixelReturnsTheData) {
  // Every tap lands on the one pixel and cancels, so the system is w x = w d.
  const std::vector<double> d = {0.375}, w = {0.5};
  std::vector<double> x = {0.0};
  fitThinPlate({d, x, w, 1, 1});
  EXPECT_NEAR(x[0], 0.375, 1e-15);
}

// Seam strips (weights on the bands at both ends, none in the gap), random weights that change
// along one axis, and planes one or two samples across: the iterative solve agrees with the
// sparse LU, also for a second data plane solved with the same system.
TEST(ThinPlateSystem, IteratesOnAxisWeightsToTheDirectSolution) {
  struct Case {
    int W, H;
    bool alongX;  // weights change along x (constant down the columns)
    int band;     // 0: random weights
  };
  const Case cases[] = {{64, 200, true, 8}, {300, 40, false, 5},  {37, 23, true, 0},
                        {29, 41, false, 0}, {128, 500, true, 16}, {5, 7, true, 1},
                        {1, 9, false, 0},   {2, 9, false, 0},     {9, 2, true, 0},
                        {9, 1, false, 0}};
  for (const Case& c : cases) {
    const int n = c.W * c.H, across = c.alongX ? c.W : c.H;
    const auto line = test::RandomValues(across, 11, 0.0, 1.0);
    std::vector<double> w(n);
    for (int y = 0; y < c.H; ++y)
      for (int x = 0; x < c.W; ++x) {
        const int i = c.alongX ? x : y;
        w[y * c.W + x] = c.band == 0 ? line[i] : (i < c.band || i >= across - c.band ? 0.5 : 0.0);
      }
    const ThinPlateSystem iterative(w, c.W, c.H), direct(w, c.W, c.H, ThinPlateMethod::kDirect);
    for (unsigned seed : {12u, 13u}) {
      const auto d = test::RandomValues(n, seed);
      std::vector<double> xi(n), xd(n);
      iterative.Solve(d, xi);
      direct.Solve(d, xd);
      EXPECT_GE(iterative.iterations(), 0) << c.W << " x " << c.H;
      EXPECT_EQ(direct.iterations(), -1);
      double scale = 0.0, diff = 0.0;
      for (int i = 0; i < n; ++i) {
        scale = std::max(scale, std::fabs(xd[i]));
        diff = std::max(diff, std::fabs(xi[i] - xd[i]));
      }
      EXPECT_LT(diff, 1e-10 * scale) << c.W << " x " << c.H;
    }
  }
}

}  // namespace
}  // namespace marlith
