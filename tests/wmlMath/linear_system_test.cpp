// Assertions stay on in this file: the index checks are part of what is tested.
#undef NDEBUG
#include <gtest/gtest.h>

#include <cmath>
#include <random>

#include "wmlMath/WmlLinearSystem.h"

namespace Wml {
namespace {

TEST(LinearSystem, SolvesSmallAndRandomSystemsAndReportsSingularOnes) {
  GMatrixd one(1, 1);
  one[0][0] = 2.0;
  double b = 4.0, x = 0.0;
  ASSERT_TRUE(LinearSystemd::Solve(one, &b, &x));
  EXPECT_EQ(x, 2.0);

  GMatrixd zero(3, 3);
  double bz[3] = {1, 2, 3}, xz[3];
  EXPECT_FALSE(LinearSystemd::Solve(zero, bz, xz));

  const int n = 7;
  std::mt19937 rng(5);
  std::uniform_real_distribution<double> u(-1.0, 1.0);
  GMatrixd a(n, n);
  std::vector<double> rhs(n), sol(n);
  for (int r = 0; r < n; ++r) {
    rhs[r] = u(rng);
    for (int c = 0; c < n; ++c) a[r][c] = u(rng);
  }
  ASSERT_TRUE(LinearSystemd::Solve(a, rhs.data(), sol.data()));
  for (int r = 0; r < n; ++r) {
    double s = 0;
    for (int c = 0; c < n; ++c) s += a[r][c] * sol[c];
    EXPECT_NEAR(s, rhs[r], 1e-12);
  }
  // In place gives the same solution.
  std::vector<double> inPlace = rhs;
  ASSERT_TRUE(LinearSystemd::Solve(a, inPlace.data(), inPlace.data()));
  for (int i = 0; i < n; ++i) EXPECT_EQ(inPlace[i], sol[i]);
}

TEST(LinearSystem, TakesTheFirstLargestPivotInRowMajorOrder) {
  // |3| appears at (0, 1) and (1, 0): the first met wins. Row 0 then moves to row 1 (the pivot's
  // column), and the only unpivoted index left is 0: the second pivot is (0, 0).
  const double entries[] = {1, 3, 3, 1};
  GMatrixd a(2, 2, entries);
  double b[2] = {4, 4}, x[2];
  LinearSystemd::PivotTrace trace;
  ASSERT_TRUE(LinearSystemd::Solve(a, b, x, &trace));
  ASSERT_EQ(trace.size(), 2u);
  EXPECT_EQ(trace[0], std::make_pair(0, 1));
  EXPECT_EQ(trace[1], std::make_pair(0, 0));
  EXPECT_NEAR(x[0], 1.0, 1e-15);
  EXPECT_NEAR(x[1], 1.0, 1e-15);
  // A NaN pivot counts as singular.
  GMatrixd bad(1, 1);
  bad[0][0] = std::nan("");
  double bb = 1.0, xb = 0.0;
  EXPECT_FALSE(LinearSystemd::Solve(bad, &bb, &xb));
}

}  // namespace
}  // namespace Wml
