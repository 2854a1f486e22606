#include "refine/numeric_kernels.h"

#include <gtest/gtest.h>

#include <cmath>
#include <random>

#include "support/test_support.h"

namespace marlith {
namespace {

TEST(MatrixProducts, FollowTheOrderCodes) {
  const int rows = 3, cols = 4;
  auto m = test::RandomValues(rows * cols, 1);
  const DenseMatrixView M{m.data(), cols, rows};
  const auto x4 = test::RandomValues(4, 2), x3 = test::RandomValues(3, 3);
  std::vector<double> y(4);
  for (int32_t code : {101, 7}) {
    matrixVectorProduct(M, code, x4.data(), y.data());
    for (int r = 0; r < rows; ++r) {
      double s = 0;
      for (int c = 0; c < cols; ++c) s += m[r * cols + c] * x4[c];
      EXPECT_NEAR(y[r], s, 1e-15) << code;
    }
  }
  for (int32_t code : {102, 103}) {
    matrixVectorProduct(M, code, x3.data(), y.data());
    for (int c = 0; c < cols; ++c) {
      double s = 0;
      for (int r = 0; r < rows; ++r) s += m[r * cols + c] * x3[r];
      EXPECT_NEAR(y[c], s, 1e-15) << code;
    }
  }
  // In place on a square matrix: the product goes through a temporary.
  auto sq = test::RandomValues(9, 4), v = test::RandomValues(3, 5);
  const auto v0 = v;
  const DenseMatrixView S{sq.data(), 3, 3};
  matrixVectorProduct(S, 101, v.data(), v.data());
  for (int r = 0; r < 3; ++r)
    EXPECT_NEAR(v[r], sq[r * 3] * v0[0] + sq[r * 3 + 1] * v0[1] + sq[r * 3 + 2] * v0[2], 1e-15);

  // C = A^T B with A 3 x 4 and B 3 x 2.
  auto b = test::RandomValues(6, 6);
  std::vector<double> c(8);
  DenseMatrixView C{c.data(), 2, 4};
  matrixMatrixProduct(102, M, DenseMatrixView{b.data(), 2, 3}, C);
  for (int i = 0; i < 4; ++i)
    for (int j = 0; j < 2; ++j) {
      double s = 0;
      for (int k = 0; k < 3; ++k) s += m[k * cols + i] * b[k * 2 + j];
      EXPECT_NEAR(c[i * 2 + j], s, 1e-15);
    }
  std::vector<double> sum(8);
  DenseMatrixView Sum{sum.data(), 2, 4};
  matrixSum(C, C, Sum);
  EXPECT_EQ(sum[5], 2 * c[5]);
}

TEST(SolveLinearSystem, SolvesAsStoredOrTransposedAndInPlace) {
  const int n = 6;
  auto a = test::RandomValues(n * n, 7);
  for (int i = 0; i < n; ++i) a[i * n + i] += 4.0;
  const auto b = test::RandomValues(n, 8);
  const DenseMatrixView A{a.data(), n, n};
  for (int32_t code : {101, 102, 103}) {
    std::vector<double> x(n);
    ASSERT_TRUE(solveLinearSystem(code, A, b.data(), x.data()));
    const bool t = code != 101;
    for (int r = 0; r < n; ++r) {
      double s = 0;
      for (int c = 0; c < n; ++c) s += (t ? a[c * n + r] : a[r * n + c]) * x[c];
      EXPECT_NEAR(s, b[r], 1e-12) << code;
    }
    std::vector<double> inPlace = b;
    solveLinearSystem(code, A, inPlace.data(), inPlace.data());
    for (int i = 0; i < n; ++i) EXPECT_EQ(inPlace[i], x[i]);
  }
  std::vector<double> zero(4, 0.0), x(2);
  EXPECT_FALSE(solveLinearSystem(101, DenseMatrixView{zero.data(), 2, 2}, b.data(), x.data()));
}

}  // namespace
}  // namespace marlith
