#include "refine/numeric_kernels.h"

#include <gtest/gtest.h>

#include "support/test_support.h"

namespace marlith {
namespace {

// Entry (r, c) of the rows x cols row-major m, or of its transpose.
double At(const std::vector<double>& m, int cols, int r, int c, bool transposed) {
  return transposed ? m[c * cols + r] : m[r * cols + c];
}

TEST(MatrixProducts, FollowTheOrderCodesAlsoInPlace) {
  auto m = test::RandomValues(3 * 4, 1), b = test::RandomValues(6, 6);
  const DenseMatrixView M{m.data(), 4, 3};
  for (int32_t code : {101, 7, 102, 103}) {  // unknown codes as stored
    const bool t = code == 102 || code == 103;
    const auto x = test::RandomValues(t ? 3 : 4, 2);
    std::vector<double> y(4);
    matrixVectorProduct(M, code, x.data(), y.data());
    for (int r = 0; r < (t ? 4 : 3); ++r) {
      double s = 0;
      for (int c = 0; c < (t ? 3 : 4); ++c) s += At(m, 4, r, c, t) * x[c];
      EXPECT_NEAR(y[r], s, 1e-15) << code;
    }
  }
  auto sq = test::RandomValues(9, 4), v = test::RandomValues(3, 5);
  const auto v0 = v;
  matrixVectorProduct(DenseMatrixView{sq.data(), 3, 3}, 101, v.data(), v.data());
  for (int r = 0; r < 3; ++r)
    EXPECT_NEAR(v[r], sq[r * 3] * v0[0] + sq[r * 3 + 1] * v0[1] + sq[r * 3 + 2] * v0[2], 1e-15);
  // C = A^T B with A 3 x 4 and B 3 x 2, then C + C.
  std::vector<double> c(8), sum(8);
  DenseMatrixView C{c.data(), 2, 4}, S{sum.data(), 2, 4};
  matrixMatrixProduct(102, M, DenseMatrixView{b.data(), 2, 3}, C);
  matrixSum(C, C, S);
  for (int i = 0; i < 8; ++i) {
    double s = 0;
    for (int k = 0; k < 3; ++k) s += m[k * 4 + i / 2] * b[k * 2 + i % 2];
    EXPECT_NEAR(c[i], s, 1e-15);
    EXPECT_EQ(sum[i], 2 * c[i]);
  }
}

TEST(SolveLinearSystem, SolvesAsStoredOrTransposedAndInPlace) {
  const int n = 6;
  auto a = test::RandomValues(n * n, 7);
  for (int i = 0; i < n; ++i) a[i * n + i] += 4.0;
  const auto b = test::RandomValues(n, 8);
  for (int32_t code : {101, 102, 103}) {
    std::vector<double> x(n), inPlace = b;
    ASSERT_TRUE(solveLinearSystem(code, {a.data(), n, n}, b.data(), x.data()));
    for (int r = 0; r < n; ++r) {
      double s = 0;
      for (int c = 0; c < n; ++c) s += At(a, n, r, c, code != 101) * x[c];
      EXPECT_NEAR(s, b[r], 1e-12) << code;
    }
    solveLinearSystem(code, {a.data(), n, n}, inPlace.data(), inPlace.data());
    EXPECT_EQ(inPlace, x);
  }
  std::vector<double> zero(4, 0.0), x(2);
  EXPECT_FALSE(solveLinearSystem(101, {zero.data(), 2, 2}, b.data(), x.data()));
}

}  // namespace
}  // namespace marlith
