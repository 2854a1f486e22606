#include "fit/thin_plate_fit.h"

#include <gtest/gtest.h>

#include <cmath>
#include <limits>

#include "dense_reference.h"
#include "marlith/error.hpp"
#include "support/test_support.h"

namespace marlith {
namespace {

TEST(FitThinPlate, MatchesADenseSolveInPlaceAndOnOnePixel) {
  // On one pixel every tap lands on it and cancels: the system is w x = w d.
  for (auto [W, H] : {std::pair{12, 9}, std::pair{1, 1}}) {
    const auto d = test::RandomValues(W * H, 3);
    const auto w = test::RandomValues(W * H, 4, 0.1, 1.0);
    std::vector<double> x = d;
    fitThinPlate({x, x, w, W, H});
    EXPECT_LT(test::RelativeDifference(x, test::DenseThinPlate(d, w, W, H)), 1e-10) << W;
  }
}

TEST(FitThinPlate, FillsGapsInConstantDataAndRefusesSingularSystems) {
  const int W = 10, H = 8;
  std::vector<double> d(W * H, 0.25), w(W * H, 0.0), x(W * H);
  for (int y = 0; y < H; ++y) w[y * W] = w[y * W + W - 1] = 0.5;  // data only at the sides
  fitThinPlate({d, x, w, W, H});
  for (double v : x) EXPECT_NEAR(v, 0.25, 1e-12);
  // A weight that is not a number reaches the sparse LU, whose status must be read.
  w[3 * W + 4] = std::numeric_limits<double>::quiet_NaN();
  EXPECT_THROW(fitThinPlate({d, x, w, W, H}), Error);
  w.assign(W * H, 0.0);  // the stencil alone annihilates constants
  EXPECT_THROW(fitThinPlate({d, x, w, W, H}), Error);
  w[5] = 1e-20;  // nearly so: no exact zero pivot, but one of 1e-20 of the largest
  EXPECT_THROW(fitThinPlate({d, x, w, W, H}), Error);
  // Also on a plane large enough that rounding hides the zero pivots.
  const std::vector<double> zeros(240 * 200, 0.0);
  std::vector<double> big(zeros.size());
  EXPECT_THROW(fitThinPlate({zeros, big, zeros, 240, 200}), Error);
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
    for (int i = 0; i < n; ++i) {
      const int at = c.alongX ? i % c.W : i / c.W;
      w[i] = c.band == 0 ? line[at] : (at < c.band || at >= across - c.band ? 0.5 : 0.0);
    }
    const ThinPlateSystem iterative(w, c.W, c.H), direct(w, c.W, c.H, ThinPlateMethod::kDirect);
    for (unsigned seed : {12u, 13u}) {
      const auto d = test::RandomValues(n, seed);
      std::vector<double> xi(n), xd(n);
      iterative.Solve(d, xi);
      direct.Solve(d, xd);
      EXPECT_GE(iterative.iterations(), 0) << c.W << " x " << c.H;
      EXPECT_LT(test::RelativeDifference(xi, xd), 1e-10) << c.W << " x " << c.H;
    }
  }
}

}  // namespace
}  // namespace marlith
