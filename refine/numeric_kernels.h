// The small numeric layer under the kernel re-estimation: element-wise vector arithmetic,
// vector norms, unit-sum normalisation, dense matrix products and sums, dense linear solves.
#pragma once

#include <cstdint>
#include <span>

namespace marlith {

// A non-owning view of a row-major matrix: data, then its column and row counts.
struct DenseMatrixView {
  double* data = nullptr;
  int32_t columns = 0;
  int32_t rows = 0;
};

// Storage-order codes: 101 the matrix as stored (row-major), 102 the stored data read as
// column-major (the transpose), 103 the conjugate transpose (for real data, the transpose).
enum MatrixOrder : int32_t {
  kAsStored = 101,
  kTransposed = 102,
  kConjugateTransposed = 103,
};

// y[i] = a[i] + b[i], a[i] x b[i], a[i] - b[i] over n values; y may be a or b.
void vectorAdd(int32_t n, const double* a, const double* b, double* y);
void vectorMultiply(int32_t n, const double* a, const double* b, double* y);
void vectorSubtract(int32_t n, const double* a, const double* b, double* y);

// Kind 0: n. Kind 1: sum of |v|. Kinds 2 and 3: the sum of squares, deliberately without a
// square root (callers compare and divide such sums). Kind 4, which nothing uses, is the
// largest |v|. Any other kind: 0.
double vectorNorm(const double* v, int32_t n, int32_t kind);

// out[i] = in[i] / sum(in); out may be in.
void normalizeToUnitSum(const double* in, int32_t n, double* out);

// y = M x for 101 (and any unknown code), M^T x for 102 and 103. x and y may be the same array.
void matrixVectorProduct(const DenseMatrixView& m, int32_t order, const double* x, double* y);
// C = op(A) B, op chosen by the code as above; C may be A or B.
void matrixMatrixProduct(int32_t order, const DenseMatrixView& a, const DenseMatrixView& b,
                         DenseMatrixView& c);
// C = A + B element-wise; C may be A or B.
void matrixSum(const DenseMatrixView& a, const DenseMatrixView& b, DenseMatrixView& c);

// x with op(A) x = b for square A (op by the code: 102 and 103 transpose), by Gauss-Jordan
// elimination with full pivoting; b and x may be the same array. Returns false for a singular
// matrix, x then holding what the elimination had reached; the re-estimation goes on with it.
bool solveLinearSystem(int32_t order, const DenseMatrixView& a, const double* b, double* x);

}  // namespace marlith
