#include "plane/gmres.h"

#include <algorithm>
#include <cassert>
#include <cmath>
#include <vector>

#include "plane/worker_pool.h"

namespace marlith {
namespace {

// Dot products in fixed blocks summed in block order, so that the result does not depend on
// the number of threads.
constexpr ptrdiff_t kReductionBlock = 1 << 14;
// Vectors shorter than this are worked by one thread: waking the workers would cost more.
constexpr ptrdiff_t kParallelFrom = 1 << 15;

// The vector operations of the iteration over vectors of n values in blocks of
// kReductionBlock, with the block sums kept for adding up in block order.
class BlockedVectors {
 public:
  BlockedVectors(ptrdiff_t n, int threads, std::vector<double>& partial)
      : n_(n),
        blocks_((n + kReductionBlock - 1) / kReductionBlock),
        threads_(threads),
        partial_(partial) {}

  // dots[i] = <w, basis[i]> for i < count, in one pass over w.
  void Dots(const double* w, const double* const* basis, int count, double* dots) {
    partial_.resize(static_cast<size_t>(count) * blocks_);
    ForEachBlock([&](ptrdiff_t k, ptrdiff_t begin, ptrdiff_t end) {
      for (int i = 0; i < count; ++i) {
        double s = 0.0;
        for (ptrdiff_t t = begin; t < end; ++t) s += w[t] * basis[i][t];
        partial_[static_cast<size_t>(i) * blocks_ + k] = s;
      }
    });
    for (int i = 0; i < count; ++i) dots[i] = SumOfBlocks(i);
  }

  // w -= sum over i < count of c[i] basis[i], in one pass; returns |w|^2 afterwards when asked.
  double Subtract(double* w, const double* const* basis, const double* c, int count,
                  bool norm = false) {
    partial_.resize(static_cast<size_t>(blocks_));
    ForEachBlock([&](ptrdiff_t k, ptrdiff_t begin, ptrdiff_t end) {
      for (int i = 0; i < count; ++i) {
        const double ci = c[i];
        const double* b = basis[i];
        for (ptrdiff_t t = begin; t < end; ++t) w[t] -= ci * b[t];
      }
      if (norm) {
        double s = 0.0;
        for (ptrdiff_t t = begin; t < end; ++t) s += w[t] * w[t];
        partial_[static_cast<size_t>(k)] = s;
      }
    });
    return norm ? SumOfBlocks(0) : 0.0;
  }

  double Dot(const double* a, const double* b) {
    double d;
    Dots(a, &b, 1, &d);
    return d;
  }

 private:
  template <typename Work>
  void ForEachBlock(const Work& work) {
    RunParallelRanges(blocks_, threads_, [&](ptrdiff_t first, ptrdiff_t last) {
      for (ptrdiff_t k = first; k < last; ++k)
        work(k, k * kReductionBlock, std::min(n_, (k + 1) * kReductionBlock));
    });
  }
  double SumOfBlocks(int row) const {
    double sum = 0.0;
    for (ptrdiff_t k = 0; k < blocks_; ++k) sum += partial_[static_cast<size_t>(row) * blocks_ + k];
    return sum;
  }

  ptrdiff_t n_, blocks_;
  int threads_;
  std::vector<double>& partial_;  // block sums, kept by the caller between calls
};

}  // namespace

GmresResult solveGmres(std::span<const double> rhs, std::span<double> x,
                       const LinearOperator& apply, const LinearOperator& precondition,
                       const GmresSettings& settings, GmresWorkspace& workspace) {
  const ptrdiff_t n = static_cast<ptrdiff_t>(rhs.size());
  assert(static_cast<ptrdiff_t>(x.size()) >= n && settings.restart > 0);
  GmresResult result;
  // Vectors shorter than kParallelFrom are worked by the calling thread alone.
  const int threads = n >= kParallelFrom ? settings.threads : 1;
  BlockedVectors vectors(n, threads, workspace.partial);
  const double rhsNorm = std::sqrt(vectors.Dot(rhs.data(), rhs.data()));
  if (rhsNorm == 0.0) {
    std::fill_n(x.begin(), n, 0.0);
    result.converged = true;
    return result;
  }
  const int m = settings.restart;
  // Grown, never shrunk: a workspace serves solves of one size without allocating. Every
  // vector is written before it is read.
  const size_t needed = static_cast<size_t>(m + 3) * n;
  if (workspace.capacity < needed) {
    workspace.vectors.reset();
    workspace.vectors = AllocateFftwBuffer<double>(needed);
    workspace.capacity = needed;
  }
  std::vector<double*> v(static_cast<size_t>(m + 1));
  for (int i = 0; i <= m; ++i) v[i] = workspace.vectors.get() + static_cast<ptrdiff_t>(i) * n;
  double* const w = workspace.vectors.get() + static_cast<ptrdiff_t>(m + 1) * n;
  double* const z = w + n;
  // The Hessenberg matrix (row i at i * m), the Givens rotations and the rotated residual.
  std::vector<double> hessenberg(static_cast<size_t>(m + 1) * m), cs(m), sn(m), g(m + 1), y(m),
      column(m + 1), again(m + 1);
  auto h = [&](int i, int j) -> double& { return hessenberg[static_cast<size_t>(i) * m + j]; };
  int& iterations = result.iterations;
  precondition(rhs.data(), x.data());
  double previousBeta = HUGE_VAL;
  while (true) {
    apply(x.data(), w);
    double* r = v[0];
    RunParallelFor(n, threads, [&](ptrdiff_t i) { r[i] = rhs[i] - w[i]; });
    const double beta = std::sqrt(vectors.Dot(r, r));
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
      precondition(v[j], z);
      apply(z, w);
      // Classical Gram-Schmidt done twice: as accurate as the modified form, in four passes
      // over the vectors where that takes 2 (j + 1).
      vectors.Dots(w, v.data(), j + 1, column.data());
      vectors.Subtract(w, v.data(), column.data(), j + 1);
      vectors.Dots(w, v.data(), j + 1, again.data());
      const double norm2 = vectors.Subtract(w, v.data(), again.data(), j + 1, true);
      for (int i = 0; i <= j; ++i) h(i, j) = column[i] + again[i];
      h(j + 1, j) = std::sqrt(norm2);
      if (h(j + 1, j) > 0.0) {
        const double inv = 1.0 / h(j + 1, j);
        double* next = v[j + 1];
        RunParallelFor(n, threads, [&](ptrdiff_t i) { next[i] = w[i] * inv; });
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
    // x += M^-1 (V y), with H y = g upper triangular; V y is formed as w = 0 - V (-y).
    for (int i = steps - 1; i >= 0; --i) {
      double s = g[i];
      for (int k = i + 1; k < steps; ++k) s -= h(i, k) * y[k];
      y[i] = s / h(i, i);
    }
    for (int i = 0; i < steps; ++i) column[i] = -y[i];
    std::fill_n(w, n, 0.0);
    vectors.Subtract(w, v.data(), column.data(), steps);
    precondition(w, z);
    RunParallelFor(n, threads, [&](ptrdiff_t i) { x[i] += z[i]; });
  }
}

}  // namespace marlith
