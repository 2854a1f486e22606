// Assertions stay on in this file: the index checks are part of what is tested. Solving itself
// is checked through refine's solveLinearSystem.
#undef NDEBUG
#include <gtest/gtest.h>

#include <cmath>

#include "wmlMath/WmlLinearSystem.h"

namespace Wml {
namespace {

TEST(LinearSystem, TakesTheFirstLargestPivotInRowMajorOrderAndReportsSingularSystems) {
  // |3| appears at (0, 1) and (1, 0): the first met wins. Row 0 then moves to row 1 (the pivot's
  // column), and the only unpivoted index left is 0: the second pivot is (0, 0).
  const double entries[] = {1, 3, 3, 1};
  double b[2] = {5, 7}, x[2];
  LinearSystemd::PivotTrace trace;
  ASSERT_TRUE(LinearSystemd::Solve(GMatrixd(2, 2, entries), b, x, &trace));
  EXPECT_EQ(trace, (LinearSystemd::PivotTrace{{0, 1}, {0, 0}}));
  EXPECT_NEAR(x[0], 2.0, 1e-15);
  EXPECT_NEAR(x[1], 1.0, 1e-15);
  // Singular: all zero, or a pivot that is not a number.
  double c[3] = {1, 2, 3}, y[3];
  EXPECT_FALSE(LinearSystemd::Solve(GMatrixd(3, 3), c, y));
  GMatrixd bad(1, 1);
  bad[0][0] = std::nan("");
  EXPECT_FALSE(LinearSystemd::Solve(bad, c, y));
}

}  // namespace
}  // namespace Wml
