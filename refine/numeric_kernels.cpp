#include "refine/numeric_kernels.h"

#include <algorithm>
#include <cassert>
#include <cmath>
#include <vector>

#include "refine/blas_routines.h"
#include "wmlMath/WmlLinearSystem.h"

namespace marlith {

void vectorAdd(int32_t n, const double* a, const double* b, double* y) {
  for (int32_t i = 0; i < n; ++i) y[i] = a[i] + b[i];
}

void vectorMultiply(int32_t n, const double* a, const double* b, double* y) {
  for (int32_t i = 0; i < n; ++i) y[i] = a[i] * b[i];
}

void vectorSubtract(int32_t n, const double* a, const double* b, double* y) {
  for (int32_t i = 0; i < n; ++i) y[i] = a[i] - b[i];
}

double vectorNorm(const double* v, int32_t n, int32_t kind) {
  double result = 0.0;
  switch (kind) {
    case 0:
      return static_cast<double>(n);
    case 1:
      for (int32_t i = 0; i < n; ++i) result += std::fabs(v[i]);
      return result;
    case 2:
    case 3:
      for (int32_t i = 0; i < n; ++i) result += v[i] * v[i];
      return result;
    case 4:
      // Unused by any caller: the maximum norm completes the family.
      for (int32_t i = 0; i < n; ++i) result = std::max(result, std::fabs(v[i]));
      return result;
    default:
      return 0.0;
  }
}

void normalizeToUnitSum(const double* in, int32_t n, double* out) {
  double sum = 0.0;
  for (int32_t i = 0; i < n; ++i) sum += in[i];
  for (int32_t i = 0; i < n; ++i) out[i] = in[i] / sum;
}

namespace {

bool Transposes(int32_t order) { return order == kTransposed || order == kConjugateTransposed; }

}  // namespace

void matrixVectorProduct(const DenseMatrixView& m, int32_t order, const double* x, double* y) {
  const bool t = Transposes(order);
  const int32_t outCount = t ? m.columns : m.rows;
  std::vector<double> temporary;
  double* out = y;
  // BLAS may not read and write one array: an aliased product goes through a temporary.
  if (x == y) {
    temporary.resize(static_cast<size_t>(outCount));
    out = temporary.data();
  }
  Blas().dgemv(CblasRowMajor, t ? CblasTrans : CblasNoTrans, m.rows, m.columns, 1.0, m.data,
               m.columns, x, 1, 0.0, out, 1);
  if (x == y) std::copy(temporary.begin(), temporary.end(), y);
}

void matrixMatrixProduct(int32_t order, const DenseMatrixView& a, const DenseMatrixView& b,
                         DenseMatrixView& c) {
  // The code transposes the first operand: C = A^T B is what the normal equations need.
  const bool t = Transposes(order);
  const int32_t m = t ? a.columns : a.rows;
  const int32_t k = t ? a.rows : a.columns;
  assert(k == b.rows && c.rows == m && c.columns == b.columns);
  std::vector<double> temporary;
  double* out = c.data;
  if (c.data == a.data || c.data == b.data) {
    temporary.resize(static_cast<size_t>(m) * b.columns);
    out = temporary.data();
  }
  Blas().dgemm(CblasRowMajor, t ? CblasTrans : CblasNoTrans, CblasNoTrans, m, b.columns, k, 1.0,
               a.data, a.columns, b.data, b.columns, 0.0, out, b.columns);
  if (out != c.data) std::copy(temporary.begin(), temporary.end(), c.data);
}

void matrixSum(const DenseMatrixView& a, const DenseMatrixView& b, DenseMatrixView& c) {
  vectorAdd(a.rows * a.columns, a.data, b.data, c.data);
}

bool solveLinearSystem(int32_t order, const DenseMatrixView& a, const double* b, double* x) {
  assert(a.rows == a.columns);
  Wml::GMatrixd matrix(a.rows, a.columns, a.data);
  if (Transposes(order)) matrix = matrix.Transpose();
  if (b != x) return Wml::LinearSystemd::Solve(matrix, b, x);
  std::vector<double> temporary(static_cast<size_t>(a.rows));
  const bool ok = Wml::LinearSystemd::Solve(matrix, b, temporary.data());
  std::copy(temporary.begin(), temporary.end(), x);
  return ok;
}

}  // namespace marlith
