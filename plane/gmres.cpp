#include "plane/gmres.h"

#include <algorithm>
#include <cassert>
#include <cmath>
#include <vector>

namespace marlith {
namespace {

// Dot products in fixed blocks summed in block order, so that the result does not depend on
// the number of threads.
constexpr ptrdiff_t kReductionBlock = 1 << 14;
// Vectors shorter than this are worked by one thread: waking the team would cost more.
constexpr ptrdiff_t kParallelFrom = 1 << 15;

// partial holds one sum per block; the caller keeps it, so the iteration allocates nothing.
double Dot(const double* a, const double* b, ptrdiff_t n, std::vector<double>& partial) {
  const ptrdiff_t blocks = (n + kReductionBlock - 1) / kReductionBlock;
  partial.resize(static_cast<size_t>(blocks));
  const bool parallel = n >= kParallelFrom;
#pragma omp parallel for schedule(static) if (parallel)
  for (ptrdiff_t k = 0; k < blocks; ++k) {
    const ptrdiff_t end = std::min(n, (k + 1) * kReductionBlock);
    double s = 0.0;
    for (ptrdiff_t i = k * kReductionBlock; i < end; ++i) s += a[i] * b[i];
    partial[static_cast<size_t>(k)] = s;
  }
  double sum = 0.0;
  for (double s : partial) sum += s;
  return sum;
}

// y += alpha x
void Axpy(double alpha, const double* x, double* y, ptrdiff_t n) {
  const bool parallel = n >= kParallelFrom;
#pragma omp parallel for schedule(static) if (parallel)
  for (ptrdiff_t i = 0; i < n; ++i) y[i] += alpha * x[i];
}

}  // namespace

GmresResult solveGmres(std::span<const double> rhs, std::span<double> x,
                       const LinearOperator& apply, const LinearOperator& precondition,
                       const GmresSettings& settings) {
  const ptrdiff_t n = static_cast<ptrdiff_t>(rhs.size());
  assert(static_cast<ptrdiff_t>(x.size()) >= n && settings.restart > 0);
  GmresResult result;
  const bool parallel = n >= kParallelFrom;
  std::vector<double> partial;
  const double rhsNorm = std::sqrt(Dot(rhs.data(), rhs.data(), n, partial));
  if (rhsNorm == 0.0) {
    std::fill_n(x.begin(), n, 0.0);
    result.converged = true;
    return result;
  }
  const int m = settings.restart;
  std::vector<double> basis(static_cast<size_t>(m + 1) * n), w(n), z(n);
  auto v = [&](int i) { return basis.data() + static_cast<ptrdiff_t>(i) * n; };
  // The Hessenberg matrix (row i at i * m), the Givens rotations and the rotated residual.
  std::vector<double> hessenberg(static_cast<size_t>(m + 1) * m), cs(m), sn(m), g(m + 1), y(m);
  auto h = [&](int i, int j) -> double& { return hessenberg[static_cast<size_t>(i) * m + j]; };
  int& iterations = result.iterations;
  precondition(rhs.data(), x.data());
  double previousBeta = HUGE_VAL;
  while (true) {
    apply(x.data(), w.data());
    double* r = v(0);
#pragma omp parallel for schedule(static) if (parallel)
    for (ptrdiff_t i = 0; i < n; ++i) r[i] = rhs[i] - w[i];
    const double beta = std::sqrt(Dot(r, r, n, partial));
    if (!std::isfinite(beta)) return result;
    if (beta <= settings.tolerance * rhsNorm) {
      result.converged = true;
      return result;
    }
    if (beta > settings.stagnation * previousBeta || iterations >= settings.maxIterations) {
      result.converged = beta <= settings.acceptable * rhsNorm;
      return result;
    }
    previousBeta = beta;
    for (ptrdiff_t i = 0; i < n; ++i) r[i] /= beta;
    std::fill(g.begin(), g.end(), 0.0);
    g[0] = beta;
    int steps = 0;
    for (int j = 0; j < m && iterations < settings.maxIterations; ++j) {
      precondition(v(j), z.data());
      apply(z.data(), w.data());
      for (int i = 0; i <= j; ++i) {  // modified Gram-Schmidt
        h(i, j) = Dot(w.data(), v(i), n, partial);
        Axpy(-h(i, j), v(i), w.data(), n);
      }
      h(j + 1, j) = std::sqrt(Dot(w.data(), w.data(), n, partial));
      if (h(j + 1, j) > 0.0) {
        const double inv = 1.0 / h(j + 1, j);
        double* next = v(j + 1);
#pragma omp parallel for schedule(static) if (parallel)
        for (ptrdiff_t i = 0; i < n; ++i) next[i] = w[i] * inv;
      }
      for (int i = 0; i < j; ++i) {  // earlier rotations on the new column
        const double t = cs[i] * h(i, j) + sn[i] * h(i + 1, j);
        h(i + 1, j) = -sn[i] * h(i, j) + cs[i] * h(i + 1, j);
        h(i, j) = t;
      }
      const double rho = std::hypot(h(j, j), h(j + 1, j));
      cs[j] = h(j, j) / rho;
      sn[j] = h(j + 1, j) / rho;
      h(j, j) = rho;
      h(j + 1, j) = 0.0;
      g[j + 1] = -sn[j] * g[j];
      g[j] = cs[j] * g[j];
      ++iterations;
      steps = j + 1;
      if (std::fabs(g[j + 1]) <= 0.5 * settings.tolerance * rhsNorm) break;
    }
    // x += M^-1 (V y), with H y = g upper triangular.
    for (int i = steps - 1; i >= 0; --i) {
      double s = g[i];
      for (int k = i + 1; k < steps; ++k) s -= h(i, k) * y[k];
      y[i] = s / h(i, i);
    }
    std::fill(w.begin(), w.end(), 0.0);
    for (int i = 0; i < steps; ++i) Axpy(y[i], v(i), w.data(), n);
    precondition(w.data(), z.data());
    Axpy(1.0, z.data(), x.data(), n);
  }
}

}  // namespace marlith
