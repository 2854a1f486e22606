#include "fit/thin_plate_strip_solver.h"

#include <algorithm>
#include <cassert>
#include <cmath>
#include <mutex>
#include <numbers>
#include <string>
#include <vector>

#include "fit/kernel_bank.h"
#include "marlith/error.hpp"
#include "plane/gmres.h"
#include "plane/worker_pool.h"

namespace marlith {
namespace {

// The band solves below take the stencil's outer taps to be 1 and store nothing for them.
static_assert(ThinPlateStencil::kFar == 1.0);

// Modes per chunk of the band solves' threads; the chunk's rows are contiguous.
constexpr int kModeChunk = 256;
// The iteration runs until the relative residual stops falling (a restart cycle of 12 steps
// that gains less than the stagnation factor), which on these systems is near 1.5e-14, the
// residual the sparse LU leaves too; stopping earlier is not enough: the strips' condition
// numbers near 1e10 turn a residual of 1e-13 into differences of 1e-9 from the direct
// solution. A residual below the tolerance (small systems can reach it) ends the iteration at
// once; a solution is accepted when its residual is below 1e-12.
constexpr GmresSettings kGmres = {.restart = 12,
                                  .maxIterations = 240,
                                  .tolerance = 1e-16,
                                  .stagnation = 0.3,
                                  .acceptable = 1e-12};
// Planes smaller than this are worked by one thread: waking the workers would cost more.
constexpr ptrdiff_t kParallelFrom = 1 << 15;

// Whether every row (alongRows) or else every column of the plane holds one weight.
bool ConstantAlong(std::span<const double> w, int32_t width, int32_t height, bool alongRows) {
  for (int32_t y = 0; y < height; ++y)
    for (int32_t x = 0; x < width; ++x) {
      const double first =
          alongRows ? w[static_cast<size_t>(y) * width] : w[static_cast<size_t>(x)];
      if (w[static_cast<size_t>(y) * width + x] != first) return false;
    }
  return true;
}

}  // namespace

std::unique_ptr<ThinPlateStripSolver> ThinPlateStripSolver::TryCreate(
    std::span<const double> weights, int32_t width, int32_t height, int threads,
    TransformedEnds ends) {
  assert(width > 0 && height > 0);
  const bool rowsConstant = ConstantAlong(weights, width, height, true);
  const bool columnsConstant = !rowsConstant && ConstantAlong(weights, width, height, false);
  if (!rowsConstant && !columnsConstant) return nullptr;

  std::unique_ptr<ThinPlateStripSolver> s(new ThinPlateStripSolver());
  s->width_ = width;
  s->height_ = height;
  s->weightsAlongX_ = !rowsConstant;
  s->periodic_ = ends == TransformedEnds::kPeriodic;
  // Planes smaller than kParallelFrom are worked by one thread.
  s->threads_ =
      static_cast<ptrdiff_t>(width) * height >= kParallelFrom ? ResolveThreads(threads) : 1;
  // Weights the same along each row vary only down the columns: transform along x, band
  // along y. Otherwise the reverse.
  const int nt = rowsConstant ? width : height, nb = rowsConstant ? height : width;
  const int transformStride = rowsConstant ? 1 : width, bandStride = rowsConstant ? width : 1;
  s->transformLength_ = nt;
  // DCT-III after DCT-II gives 2 nt times the input, the half-complex transform and its
  // inverse nt times.
  s->transformScale_ = s->periodic_ ? nt : 2.0 * nt;
  s->bandLength_ = nb;
  s->bandWeights_.resize(static_cast<size_t>(nb));
  for (int b = 0; b < nb; ++b) s->bandWeights_[b] = weights[static_cast<size_t>(b) * bandStride];

  // The banded system of mode k, at theta = pi k / nt for the cosine transform and 2 pi k / nt
  // for the half-complex one (whose entries k and nt - k, the real and imaginary parts of one
  // frequency, get the same system): the stencil's taps along the transformed axis become
  // 2 cos(d theta) for the pair at distance d, leaving across the band the coefficients a0 at
  // the centre, a1 one sample out and a2 two out, clamped at its ends.
  // Each is factorised as L U without pivoting, L unit lower and U upper, both of bandwidth 2:
  // the systems are the modes of a positive semi-definite operator plus non-negative
  // weights, apart from the clamped corners, and their pivots stay positive. A pivot that
  // vanishes (negative weights could make one) turns the solver down, and the caller solves
  // directly.
  const size_t n = static_cast<size_t>(width) * height;
  s->lower1_.resize(n);
  s->inverseDiagonal_.resize(n);
  s->upper1_.resize(n);
  // Whether mode k factorised; a byte a mode, so that no two threads write the same one.
  std::vector<char> regular(static_cast<size_t>(nt), 1);
  RunParallelFor(nt, s->threads_, [&](int k) {
    const double theta = (s->periodic_ ? 2.0 : 1.0) * std::numbers::pi * k / nt;
    const double c1 = 2.0 * std::cos(theta), c2 = 2.0 * std::cos(2.0 * theta);
    using S = ThinPlateStencil;
    const double a[3] = {S::kCentre + S::kNeighbour * c1 + S::kFar * c2,
                         S::kNeighbour + S::kDiagonal * c1, S::kFar};
    double* l1 = s->lower1_.data();
    double* invd = s->inverseDiagonal_.data();
    double* u1 = s->upper1_.data();
    for (int i = 0; i < nb; ++i) {
      // Row i of the matrix: m[d + 2] at column i + d, clamped taps merged.
      double m[5] = {0.0, 0.0, s->bandWeights_[i], 0.0, 0.0};
      for (int d = -2; d <= 2; ++d) m[std::clamp(i + d, 0, nb - 1) - i + 2] += a[std::abs(d)];
      const size_t at = static_cast<size_t>(i) * nt + k;
      const size_t before1 = at - nt, before2 = at - 2 * static_cast<size_t>(nt);
      // The outer diagonals need no storage: m[0] and m[4] are kFar = 1 wherever they exist, so
      // L's second subdiagonal is invd two rows up and U's second superdiagonal is m[4].
      const double lower2 = i >= 2 ? invd[before2] : 0.0;
      const double lower1 =
          i >= 1 ? (m[1] - (i >= 2 ? lower2 * u1[before2] : 0.0)) * invd[before1] : 0.0;
      const double pivot = m[2] - (i >= 2 ? lower2 : 0.0) - (i >= 1 ? lower1 * u1[before1] : 0.0);
      const double upper1 = m[3] - (i >= 1 && i + 1 < nb ? lower1 : 0.0);
      if (!(std::fabs(pivot) > 1e-12 * (std::fabs(m[2]) + 1.0)) || !std::isfinite(pivot)) {
        regular[static_cast<size_t>(k)] = 0;
      }
      l1[at] = lower1;
      invd[at] = 1.0 / pivot;
      u1[at] = upper1;
    }
  });
  if (std::find(regular.begin(), regular.end(), 0) != regular.end()) return nullptr;

  s->work_ = AllocateFftwBuffer<double>(n);
  s->spectrum_ = AllocateFftwBuffer<double>(n);
  {
    std::lock_guard<std::mutex> lock(FftwPlannerMutex());
    fftw_plan_with_nthreads(s->threads_);
    const int length = nt, stride = transformStride, distance = bandStride;
    // The spectrum is laid out mode-fastest (row b of the band axis holds every mode), so the
    // band solves run along contiguous rows whichever axis is transformed.
    fftw_r2r_kind forwardKind = s->periodic_ ? FFTW_R2HC : FFTW_REDFT10;
    fftw_r2r_kind inverseKind = s->periodic_ ? FFTW_HC2R : FFTW_REDFT01;
    s->forward_ = AdoptFftwPlan(
        fftw_plan_many_r2r(1, &length, nb, s->work_.get(), nullptr, stride, distance,
                           s->spectrum_.get(), nullptr, 1, length, &forwardKind, FFTW_ESTIMATE),
        "transform along a thin-plate strip");
    s->inverse_ = AdoptFftwPlan(
        fftw_plan_many_r2r(1, &length, nb, s->spectrum_.get(), nullptr, 1, length, s->work_.get(),
                           nullptr, stride, distance, &inverseKind, FFTW_ESTIMATE),
        "inverse transform along a thin-plate strip");
  }
  return s;
}

ThinPlateStripSolver::~ThinPlateStripSolver() = default;

// y = (B + diag(w)) x with B the 5 x 5 biharmonic stencil, neighbours clamped into the plane.
void ThinPlateStripSolver::ApplySystem(const double* x, double* y) const {
  const int W = width_, H = height_;
  RunParallelFor(H, threads_, [&](int r) {
    const double* row[5];
    for (int d = -2; d <= 2; ++d)
      row[d + 2] = x + static_cast<ptrdiff_t>(std::clamp(r + d, 0, H - 1)) * W;
    // The weights of row r: along it, or one for the whole row.
    const double* weight = weightsAlongX_ ? bandWeights_.data() : bandWeights_.data() + r;
    const int weightStep = weightsAlongX_ ? 1 : 0;
    double* out = y + static_cast<ptrdiff_t>(r) * W;
    auto at = [&](int dr, int c) { return row[dr + 2][std::clamp(c, 0, W - 1)]; };
    auto tap = [&](int c, auto get) {
      using S = ThinPlateStencil;
      return S::kCentre * get(0, c) +
             S::kNeighbour * (get(0, c - 1) + get(0, c + 1) + get(-1, c) + get(1, c)) +
             S::kDiagonal * (get(-1, c - 1) + get(-1, c + 1) + get(1, c - 1) + get(1, c + 1)) +
             S::kFar * (get(0, c - 2) + get(0, c + 2) + get(-2, c) + get(2, c));
    };
    auto direct = [&](int dr, int c) { return row[dr + 2][c]; };
    const int inner0 = std::min(2, W), inner1 = std::max(inner0, W - 2);
    for (int c = 0; c < inner0; ++c)
      out[c] = tap(c, at) + weight[c * weightStep] * x[static_cast<ptrdiff_t>(r) * W + c];
    for (int c = inner0; c < inner1; ++c)
      out[c] = tap(c, direct) + weight[c * weightStep] * x[static_cast<ptrdiff_t>(r) * W + c];
    for (int c = inner1; c < W; ++c)
      out[c] = tap(c, at) + weight[c * weightStep] * x[static_cast<ptrdiff_t>(r) * W + c];
  });
}

// z = M^-1 r, M the system with the transformed axis ending as asked (for the iteration,
// mirrored instead of clamped).
void ThinPlateStripSolver::ApplyPreconditioner(const double* r, double* z) const {
  const ptrdiff_t n = static_cast<ptrdiff_t>(width_) * height_;
  double* f = work_.get();
  std::copy_n(r, n, f);
  fftw_execute(forward_.get());
  const int nt = transformLength_, nb = bandLength_;
  const double scale = 1.0 / transformScale_;
  double* spectrum = spectrum_.get();
  const double* l1 = lower1_.data();
  const double* invd = inverseDiagonal_.data();
  const double* u1 = upper1_.data();
  const int chunks = (nt + kModeChunk - 1) / kModeChunk;
  RunParallelRanges(chunks, threads_, [&](ptrdiff_t first, ptrdiff_t last) {
    const int k0 = static_cast<int>(first) * kModeChunk;
    const int k1 = std::min(nt, static_cast<int>(last) * kModeChunk);
    // L z = scale f, row by row down the band, every mode of the chunk at once; L's second
    // subdiagonal is U's inverse diagonal two rows up.
    for (int b = 0; b < nb; ++b) {
      double* __restrict z = spectrum + static_cast<ptrdiff_t>(b) * nt;
      const double* __restrict a1 = l1 + static_cast<ptrdiff_t>(b) * nt;
      if (b >= 2) {
        const double* z1 = z - nt;
        const double* z2 = z1 - nt;
        const double* a2 = invd + static_cast<ptrdiff_t>(b - 2) * nt;
        for (int k = k0; k < k1; ++k) z[k] = scale * z[k] - a1[k] * z1[k] - a2[k] * z2[k];
      } else if (b == 1) {
        const double* z1 = z - nt;
        for (int k = k0; k < k1; ++k) z[k] = scale * z[k] - a1[k] * z1[k];
      } else {
        for (int k = k0; k < k1; ++k) z[k] *= scale;
      }
    }
    // U x = z, back up the band; U's second superdiagonal is 1 where it exists.
    for (int b = nb - 1; b >= 0; --b) {
      double* __restrict x = spectrum + static_cast<ptrdiff_t>(b) * nt;
      const double* __restrict b1 = u1 + static_cast<ptrdiff_t>(b) * nt;
      const double* __restrict d = invd + static_cast<ptrdiff_t>(b) * nt;
      if (b + 2 < nb) {
        const double* x1 = x + nt;
        const double* x2 = x1 + nt;
        for (int k = k0; k < k1; ++k) x[k] = (x[k] - b1[k] * x1[k] - x2[k]) * d[k];
      } else if (b + 1 < nb) {
        const double* x1 = x + nt;
        for (int k = k0; k < k1; ++k) x[k] = (x[k] - b1[k] * x1[k]) * d[k];
      } else {
        for (int k = k0; k < k1; ++k) x[k] *= d[k];
      }
    }
  });
  fftw_execute(inverse_.get());
  std::copy_n(f, n, z);
}

void ThinPlateStripSolver::SolveTransformed(std::span<const double> rhs,
                                            std::span<double> x) const {
  assert(rhs.size() >= static_cast<size_t>(width_) * height_ && x.size() >= rhs.size());
  ApplyPreconditioner(rhs.data(), x.data());
}

bool ThinPlateStripSolver::Solve(std::span<const double> rhs, std::span<double> x) const {
  const size_t n = static_cast<size_t>(width_) * height_;
  assert(rhs.size() >= n && x.size() >= n && !periodic_);
  GmresSettings settings = kGmres;
  settings.threads = threads_;
  const GmresResult result = solveGmres(
      rhs.first(n), x, [this](const double* in, double* out) { ApplySystem(in, out); },
      [this](const double* in, double* out) { ApplyPreconditioner(in, out); }, settings,
      workspace_);
  lastIterations_ = result.iterations;
  return result.converged;
}

}  // namespace marlith
