#include "refine/kernel_reestimation.h"

#include <algorithm>
#include <cassert>
#include <cmath>

#include "plane/plane_convolution.h"
#include "refine/blas_routines.h"

namespace marlith {

std::vector<double> convolutionMatrix(std::span<const double> filter, int32_t fw, int32_t fh,
                                      int32_t gw, int32_t gh) {
  const size_t K = static_cast<size_t>(gw) * gh;
  std::vector<double> m(K * K, 0.0);
  // Rotated by 180 degrees, so that the product is a convolution.
  const std::vector<PlaneTap> taps = planeKernelTaps(filter, fw, fh, true, 1e-10);
  forEachPlaneTap(taps, gw, gh, PlaneEdge::kReplicate,
                  [&](size_t row, size_t column, double w) { m[row * K + column] += w; });
  return m;
}

void buildNormalEquations(std::span<const double> observed, std::span<const double> latent,
                          int32_t W, int32_t H, int32_t channels, int32_t kw, int32_t kh,
                          std::vector<double>& N, std::vector<double>& h,
                          const std::function<void()>& checkpoint) {
  const int32_t K = kw * kh;
  N.assign(static_cast<size_t>(K) * K, 0.0);
  h.assign(static_cast<size_t>(K), 0.0);
  const int32_t mx = static_cast<int32_t>(std::ceil(4.5 * kw));
  const int32_t my = static_cast<int32_t>(std::ceil(4.5 * kh));
  const int32_t x0 = mx, x1 = W - mx, y0 = my, y1 = H - my;        // the mask's rectangle
  if (kh / 2 > my || kw / 2 > mx || x1 <= x0 || y1 <= y0) return;  // an all-zero mask
  const int32_t cols = x1 - x0;
  const size_t plane = static_cast<size_t>(W) * H;
  auto offsetX = [&](int32_t i) { return i % kw - (kw - 1) / 2; };
  auto offsetY = [&](int32_t i) { return i / kw - (kh - 1) / 2; };

  // Row blocks of the mask's interior: the K shifted copies of a block of latent rows form the
  // rows of X (K x block samples); N += X X^T (one triangle, by dsyrk) and h += X y.
  const int32_t blockRows = std::max<int32_t>(1, (1 << 16) / std::max(cols, 1));
  std::vector<double> X, y;
  for (int32_t c = 0; c < channels; ++c) {
    const double* L = latent.data() + c * plane;
    const double* Y = observed.data() + c * plane;
    for (int32_t by = y0; by < y1; by += blockRows) {
      if (checkpoint) checkpoint();
      const int32_t rows = std::min(blockRows, y1 - by);
      const size_t samples = static_cast<size_t>(rows) * cols;
      X.resize(static_cast<size_t>(K) * samples);
      y.resize(samples);
      for (int32_t r = 0; r < rows; ++r)
        std::copy_n(Y + static_cast<size_t>(by + r) * W + x0, cols,
                    y.data() + static_cast<size_t>(r) * cols);
      for (int32_t i = 0; i < K; ++i) {
        double* xi = X.data() + static_cast<size_t>(i) * samples;
        for (int32_t r = 0; r < rows; ++r)
          std::copy_n(L + static_cast<size_t>(by + r + offsetY(i)) * W + x0 + offsetX(i), cols,
                      xi + static_cast<size_t>(r) * cols);
      }
      Blas().dsyrk(CblasRowMajor, CblasUpper, CblasNoTrans, K, static_cast<int>(samples), 1.0,
                   X.data(), static_cast<int>(samples), 1.0, N.data(), K);
      Blas().dgemv(CblasRowMajor, CblasNoTrans, K, static_cast<int>(samples), 1.0, X.data(),
                   static_cast<int>(samples), y.data(), 1, 1.0, h.data(), 1);
    }
  }
  for (int32_t i = 0; i < K; ++i)
    for (int32_t j = 0; j < i; ++j)
      N[static_cast<size_t>(i) * K + j] = N[static_cast<size_t>(j) * K + i];
}

std::vector<double> solveSparseKernelProblem(const DenseMatrixView& M, std::span<const double> r,
                                             std::span<const double> start, int32_t budget,
                                             double lambda, const DenseMatrixView& D1,
                                             const DenseMatrixView& D2,
                                             const std::function<void()>& checkpoint) {
  const int32_t n = M.rows;
  if (budget < 0) budget = 60;
  const double a = 0.05 / std::max(lambda, 1e-12);
  const double betaMax = std::min(2097152.0, 100.0 * a);
  const size_t nn = static_cast<size_t>(n) * n;

  // G = D1^T D1 + D2^T D2.
  std::vector<double> g1(nn), g2(nn), G(nn), A(nn);
  DenseMatrixView G1{g1.data(), n, n}, G2{g2.data(), n, n}, Gv{G.data(), n, n};
  matrixMatrixProduct(kTransposed, D1, D1, G1);
  matrixMatrixProduct(kTransposed, D2, D2, G2);
  matrixSum(G1, G2, Gv);

  std::vector<double> x(start.begin(), start.end()), xOld(n), y1(n), y2(n), t1(n), t2(n), b(n),
      d(n);
  for (double beta = 1.0; beta <= betaMax; beta *= 2.0) {
    const double mu = beta / a;
    const double t = 1.0 / beta;
    const double tolerance = (betaMax / beta) * (betaMax / beta) * 6e-6;
    for (int32_t i = 0; i < static_cast<int32_t>(nn); ++i) A[i] = M.data[i] + mu * G[i];
    const DenseMatrixView Av{A.data(), n, n};
    for (int32_t round = 0; round < budget / 2; ++round) {
      if (checkpoint) checkpoint();
      matrixVectorProduct(D1, kAsStored, x.data(), y1.data());
      matrixVectorProduct(D2, kAsStored, x.data(), y2.data());
      for (auto* y : {&y1, &y2})
        for (double& v : *y) v = (v >= 0.0 ? 1.0 : -1.0) * std::max(std::fabs(v) - t, 0.0);
      xOld = x;
      matrixVectorProduct(D1, kTransposed, y1.data(), t1.data());
      matrixVectorProduct(D2, kTransposed, y2.data(), t2.data());
      for (int32_t i = 0; i < n; ++i) b[i] = r[i] + mu * (t1[i] + t2[i]);
      solveLinearSystem(kAsStored, Av, b.data(), x.data());  // a singular system keeps its x
      vectorSubtract(n, xOld.data(), x.data(), d.data());
      if (vectorNorm(d.data(), n, 2) / vectorNorm(x.data(), n, 2) < tolerance) break;
    }
  }
  return x;
}

KernelEstimateStatus reestimateKernel(std::span<const double> observed,
                                      std::span<const double> latent, int32_t W, int32_t H,
                                      int32_t channels, std::span<const double> initialKernel,
                                      int32_t kw, int32_t kh, std::span<double> outputKernel,
                                      const KernelEstimateSettings& settings) {
  const int32_t K = kw * kh;
  const std::vector<double> initial(initialKernel.begin(), initialKernel.begin() + K);
  std::vector<double> N, h;
  buildNormalEquations(observed, latent, W, H, channels, kw, kh, N, h, settings.checkpoint);
  const std::vector<double> difference = {0.0, 1.0, -1.0};
  const std::vector<double> D1 = convolutionMatrix(difference, 3, 1, kw, kh);
  const std::vector<double> D2 = convolutionMatrix(difference, 1, 3, kw, kh);

  const double q = vectorNorm(observed.data(), static_cast<int32_t>(observed.size()), 2);
  const double s = (20000.0 / settings.scaleValue) / q;
  for (double& v : N) v *= s * s;
  for (double& v : h) v *= s * s;

  std::vector<int32_t> freeFlags(K, -1);  // -1 free, 0 fixed at zero
  int32_t fixed = 0;
  std::vector<double> x;
  std::vector<double> M, d1, d2, r;
  for (;;) {
    const int32_t n = K - fixed;
    std::vector<int32_t> freeIndex;
    for (int32_t i = 0; i < K; ++i)
      if (freeFlags[i] == -1) freeIndex.push_back(i);
    M.assign(static_cast<size_t>(n) * n, 0.0);
    d1.assign(M.size(), 0.0);
    d2.assign(M.size(), 0.0);
    r.assign(n, 0.0);
    for (int32_t a = 0; a < n; ++a) {
      r[a] = h[freeIndex[a]];
      for (int32_t b = 0; b < n; ++b) {
        const size_t from = static_cast<size_t>(freeIndex[a]) * K + freeIndex[b];
        M[static_cast<size_t>(a) * n + b] = N[from];
        d1[static_cast<size_t>(a) * n + b] = D1[from];
        d2[static_cast<size_t>(a) * n + b] = D2[from];
      }
    }
    std::copy(initial.begin(), initial.end(), outputKernel.begin());
    x = solveSparseKernelProblem({M.data(), n, n}, r, std::vector<double>(n, 0.0), 60,
                                 settings.sparsityWeight, {d1.data(), n, n}, {d2.data(), n, n},
                                 settings.checkpoint);
    if (n < 1 || std::all_of(x.begin(), x.end(), [](double v) { return v >= -0.001; })) break;
    for (int32_t a = 0; a < n; ++a) {
      if (x[a] < -0.001) {
        freeFlags[freeIndex[a]] = 0;
        ++fixed;
      }
    }
  }

  // The fitted kernel, rotated by 180 degrees (on purpose) and normalised to unit sum.
  std::vector<double> result(K, 0.0);
  for (int32_t i = 0, next = 0; i < K; ++i)
    if (freeFlags[i] == -1) result[K - 1 - i] = std::max(0.0, x[next++]);
  double sum = 0.0;
  for (double v : result) sum += v;
  if (!(sum > 0.0)) {
    // Nothing positive is left to normalise: keep the kernel we were given rather than
    // hand back a kernel of NaNs.
    std::copy(initial.begin(), initial.end(), outputKernel.begin());
    return KernelEstimateStatus::kNoPositiveEntry;
  }
  for (int32_t i = 0; i < K; ++i) outputKernel[i] = result[i] / sum;
  return KernelEstimateStatus::kRefined;
}

}  // namespace marlith
