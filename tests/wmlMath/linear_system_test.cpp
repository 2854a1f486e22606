// Assertions stay on in this file: the index checks are part of what is tested.
#undef NDEBUG
#include <gtest/gtest.h>

#include <cmath>
#include <random>

#include "wmlMath/WmlLinearSystem.h"

namespace Wml {
namespace {

TEST(LinearSystem, SolvesRandomSystemsInPlaceAndReportsSingularOnes) {
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
  ASSERT_TRUE(LinearSystemd::Solve(a, rhs.data(), rhs.data()));
  EXPECT_EQ(rhs, sol);
  // Singular: all zero, or a pivot that is not a number.
  double b[3] = {1, 2, 3}, x[3];
  EXPECT_FALSE(LinearSystemd::Solve(GMatrixd(3, 3), b, x));
  GMatrixd bad(1, 1);
  bad[0][0] = std::nan("");
  EXPECT_FALSE(LinearSystemd::Solve(bad, b, x));
}

TEST(LinearSystem, TakesTheFirstLargestPivotInRowMajorOrder) {
  // |3| appears at (0, 1) and (1, 0): the first met wins. Row 0 then moves to row 1 (the pivot's
  // column), and the only unpivoted index left is 0: the second pivot is (0, 0).
  const double entries[] = {1, 3, 3, 1};
  double b[2] = {4, 4}, x[2];
  LinearSystemd::PivotTrace trace;
  ASSERT_TRUE(LinearSystemd::Solve(GMatrixd(2, 2, entries), b, x, &trace));
  EXPECT_EQ(trace, (LinearSystemd::PivotTrace{{0, 1}, {0, 0}}));
  EXPECT_NEAR(x[0], 1.0, 1e-15);
  EXPECT_NEAR(x[1], 1.0, 1e-15);
}

}  // namespace
}  // namespace Wml
