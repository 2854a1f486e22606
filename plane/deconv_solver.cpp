#include "plane/deconv_solver.h"

#include <algorithm>
#include <cassert>
#include <chrono>
#include <cmath>
#include <numbers>
#include <string>
#include <utility>

#include "marlith/error.hpp"
#include "plane/plane_padding.h"
#include "plane/worker_pool.h"

namespace marlith {

void ConjugateSpectrum(std::span<const Complex> source, std::span<Complex> destination) {
  for (size_t i = 0; i < source.size(); ++i) destination[i] = std::conj(source[i]);
}

void SquaredMagnitudes(std::span<const Complex> source, std::span<double> destination) {
  for (size_t i = 0; i < source.size(); ++i) {
    destination[i] = source[i].real() * source[i].real() + source[i].imag() * source[i].imag();
  }
}

void MultiplySpectra(std::span<const Complex> a, std::span<const Complex> b,
                     std::span<Complex> destination) {
  for (size_t i = 0; i < a.size(); ++i) {
    const double re = a[i].real() * b[i].real() - a[i].imag() * b[i].imag();
    const double im = a[i].real() * b[i].imag() + a[i].imag() * b[i].real();
    destination[i] = Complex(re, im);
  }
}

void CircularShiftHalf(std::span<const double> source, std::span<double> destination, int width,
                       int height) {
  const size_t n = static_cast<size_t>(width) * height;
  assert(source.size() >= n && destination.size() >= n);
  std::vector<double> scratch(n);
  const int halfW = width / 2, halfH = height / 2;
  const int leading = width - halfW;  // ceil(W / 2) values go to columns halfW onward
  for (int r = 0; r < height; ++r) {
    const double* src = source.data() + static_cast<size_t>(r) * width;
    double* dst = scratch.data() + static_cast<size_t>((r + halfH) % height) * width;
    std::copy_n(src, leading, dst + halfW);
    std::copy_n(src + leading, halfW, dst);
  }
  std::copy(scratch.begin(), scratch.end(), destination.begin());
}

double PiecewisePriorShrink(double g, double d, double m, double t, double s, double k, double a,
                            double b, double l) {
  const double v = s * m * d + g;
  const double e = s * m + 1.0;
  double x1;
  if (v < 0.0) {
    x1 = (v + t * k) / e;
    if (x1 <= -l) x1 = -l;
    if (x1 > 0.0) x1 = 0.0;
  } else {
    x1 = (v - t * k) / e;
    if (x1 < 0.0) x1 = 0.0;
    if (x1 >= l) x1 = l;
  }
  double x2 = v / (2.0 * a + e);
  if (v < 0.0) {
    if (x2 > -l) x2 = -l;
  } else {
    if (x2 < l) x2 = l;
  }
  const double e1 = (x1 - g) * (x1 - g) + t * k * std::fabs(x1) + s * m * (x1 - d) * (x1 - d);
  const double e2 = (x2 - g) * (x2 - g) + s * m * (x2 - d) * (x2 - d) + t * (a * x2 * x2 + b);
  return e2 < e1 ? x2 : x1;
}

namespace {

// Forward differences with wrap-around: gx(x, y) = p(x + 1, y) - p(x, y), gy likewise down.
void ForwardDifferences(const double* p, int W, int H, double* gx, double* gy) {
  for (int y = 0; y < H; ++y) {
    const double* row = p + static_cast<size_t>(y) * W;
    const double* below = p + static_cast<size_t>(y + 1 == H ? 0 : y + 1) * W;
    double* gxRow = gx + static_cast<size_t>(y) * W;
    double* gyRow = gy + static_cast<size_t>(y) * W;
    for (int x = 0; x + 1 < W; ++x) gxRow[x] = row[x + 1] - row[x];
    gxRow[W - 1] = row[0] - row[W - 1];
    for (int x = 0; x < W; ++x) gyRow[x] = below[x] - row[x];
  }
}

struct PriorShape {
  double k, a, b, l;
};

// One row of auxiliary gradients with the local prior: the general per-pixel rule.
void ShrinkRowWithLocalPrior(const double* cur, const double* below, const double* refX,
                             const double* refY, const double* mask, int W, double t, double s,
                             const PriorShape& p, double* psiX, double* psiY) {
  for (int x = 0; x < W; ++x) {
    const double gx = (x + 1 == W ? cur[0] : cur[x + 1]) - cur[x];
    const double gy = below[x] - cur[x];
    psiX[x] = PiecewisePriorShrink(gx, refX[x], mask[x], t, s, p.k, p.a, p.b, p.l);
    psiY[x] = PiecewisePriorShrink(gy, refY[x], mask[x], t, s, p.k, p.a, p.b, p.l);
  }
}

// Constants of the rule below for one value of t, hoisted out of the row loop.
struct PlainShrinkConstants {
  double tk, t, divisor, l, a, b;
};

// The per-pixel rule with s m = 0 (v = g, e = 1), written branch-free so that it vectorises.
// The rule is odd in g: for g < 0 every candidate, and both energies, are the mirror images of
// those for |g|, and negation is exact, so it is evaluated on |g| and the sign put back
// afterwards; adding 0.0 turns the -0.0 that copysign gives a zero result back into the +0.0
// the general rule's clamps leave (a select on the sign would stop the loop vectorising).
inline double ShrinkPlain(double g, const PlainShrinkConstants c) {
  const double ag = std::fabs(g);
  double x1 = ag - c.tk;
  x1 = x1 < 0.0 ? 0.0 : x1;
  x1 = c.l < x1 ? c.l : x1;
  double x2 = ag / c.divisor;
  x2 = x2 < c.l ? c.l : x2;
  const double e1 = (x1 - ag) * (x1 - ag) + c.tk * x1;
  const double e2 = (x2 - ag) * (x2 - ag) + c.t * (c.a * x2 * x2 + c.b);
  const double r = e2 < e1 ? x2 : x1;
  return std::copysign(r, g) + 0.0;
}

// The row loop is the solver's heaviest element-wise pass (a division per sample), so it is
// also built for wider vector units and picked at load time. The file is compiled without
// floating-point contraction, so every build performs the same roundings.
__attribute__((target_clones("avx512f", "avx2", "default"))) void ShrinkRow(
    const double* __restrict cur, const double* __restrict below, int W, double t,
    const PriorShape& p, double* __restrict psiX, double* __restrict psiY) {
  const PlainShrinkConstants c{t * p.k, t, 2.0 * p.a + 1.0, p.l, p.a, p.b};
  for (int x = 0; x + 1 < W; ++x) {
    psiX[x] = ShrinkPlain(cur[x + 1] - cur[x], c);
    psiY[x] = ShrinkPlain(below[x] - cur[x], c);
  }
  psiX[W - 1] = ShrinkPlain(cur[0] - cur[W - 1], c);
  psiY[W - 1] = ShrinkPlain(below[W - 1] - cur[W - 1], c);
}

// The adjoint differences of one row of auxiliary gradients: with wrap-around,
// r(x) = (psiX(x - 1) - psiX(x)) + (psiYAbove(x) - psiY(x)), the real plane whose transform is
// conj(Dx) Psix^ + conj(Dy) Psiy^ (the backward differences Dx^T Psix + Dy^T Psiy).
__attribute__((target_clones("avx512f", "avx2", "default"))) void AdjointDifferencesRow(
    const double* __restrict psiX, const double* __restrict psiY,
    const double* __restrict psiYAbove, int W, double* __restrict r) {
  r[0] = (psiX[W - 1] - psiX[0]) + (psiYAbove[0] - psiY[0]);
  for (int x = 1; x < W; ++x) r[x] = (psiX[x - 1] - psiX[x]) + (psiYAbove[x] - psiY[x]);
}

// One row of the spectral division: L^ = (gamma R^ + N) / D with R^ the transform of the
// adjoint differences and D = gamma |D|^2 + |K|^2, the inverse transform's 1 / (W x H) folded
// in. L^ is written over R^.
struct SpectralRow {
  int count;
  const Complex* numerator;
  const double* dxPowerByColumn;  // |Dx|^2 = dxPowerByColumn[u] x dxPowerRow, likewise |Dy|^2
  const double* dyPowerByColumn;
  double dxPowerRow, dyPowerRow;
  const double* kernelPower;
  double gamma, inverseScale;
};

// Like the shrink, a division per sample: built for wider vector units too.
__attribute__((target_clones("avx512f", "avx2", "default"))) void DivideSpectralRow(
    const SpectralRow r, Complex* __restrict spectrum) {
  const Complex* __restrict num = r.numerator;
  const double* __restrict gx = r.dxPowerByColumn;
  const double* __restrict gy = r.dyPowerByColumn;
  const double gxRow = r.dxPowerRow, gyRow = r.dyPowerRow;
  const double* __restrict kp = r.kernelPower;
  const double gamma = r.gamma, inverseScale = r.inverseScale;
  for (int u = 0; u < r.count; ++u) {
    const Complex a = spectrum[u];
    const double gradientPower = gx[u] * gxRow + gy[u] * gyRow;
    const double denominator = gamma * gradientPower + kp[u];
    const double scale = inverseScale / denominator;
    spectrum[u] = Complex((gamma * a.real() + num[u].real()) * scale,
                          (gamma * a.imag() + num[u].imag()) * scale);
  }
}

// The conjugated spectrum of a filter plane whose taps lie in one row or in one column, as a
// function of u times a function of v. Phases are taken of (index x position) mod size, so
// they stay accurate on large planes.
std::vector<Complex> ConjugatePhases(int size, int position) {
  std::vector<Complex> phases(size);
  for (int k = 0; k < size; ++k) {
    const auto turn = static_cast<long long>(k) * position % size;
    phases[k] = std::polar(1.0, 2.0 * std::numbers::pi * static_cast<double>(turn) / size);
  }
  return phases;
}

// A filter tap at (x, y) of the working plane.
struct Tap {
  int x, y;
  double value;
};

// The non-zero taps of a kw x kh filter as PadCenteredUp centres it in a W x H plane and
// CircularShiftHalf then moves it, in row-major order: (x, y) goes to
// ((x0 + x + W / 2) mod W, (y0 + y + H / 2) mod H) with x0 = (W - kw + 1) / 2, y0 likewise.
// The filters and the kernel are placed from these without building the planes.
std::vector<Tap> CentredShiftedTaps(std::span<const double> filter, int kw, int kh, int W, int H) {
  const int x0 = static_cast<int>(static_cast<unsigned>(W - kw + 1) / 2u);
  const int y0 = static_cast<int>(static_cast<unsigned>(H - kh + 1) / 2u);
  std::vector<Tap> taps;
  for (int y = 0; y < kh; ++y)
    for (int x = 0; x < kw; ++x) {
      const double value = filter[static_cast<size_t>(y) * kw + x];
      if (value != 0.0) taps.push_back({(x0 + x + W / 2) % W, (y0 + y + H / 2) % H, value});
    }
  std::sort(taps.begin(), taps.end(),
            [](const Tap& a, const Tap& b) { return a.y != b.y ? a.y < b.y : a.x < b.x; });
  return taps;
}

void FactorConjugateSpectrum(const std::vector<Tap>& filter, int W, int H,
                             std::vector<Complex>& byColumn, std::vector<Complex>& byRow) {
  const int Wc = W / 2 + 1;
  int row = -1, column = -1;
  bool oneRow = true, oneColumn = true;
  for (const Tap& tap : filter) {
    oneRow = oneRow && (row < 0 || row == tap.y);
    oneColumn = oneColumn && (column < 0 || column == tap.x);
    row = tap.y;
    column = tap.x;
  }
  if (!oneRow && !oneColumn) throw Error("a difference filter has taps off one row and column");
  // The filter's values along its row (or column).
  std::vector<double> line(oneRow ? W : H, 0.0);
  for (const Tap& tap : filter) line[oneRow ? tap.x : tap.y] = tap.value;
  auto taps = [&](int size, int count) {
    // conj(sum_t f_t exp(-2 pi i k t / size)) for every k.
    std::vector<Complex> sum(count, Complex(0.0, 0.0));
    for (int t = 0; t < size; ++t) {
      const double f = line[t];
      if (f == 0.0) continue;
      const auto phases = ConjugatePhases(size, t);
      for (int k = 0; k < count; ++k) sum[k] += f * phases[k];
    }
    return sum;
  };
  if (oneRow) {
    byColumn = taps(W, Wc);
    byRow = ConjugatePhases(H, std::max(row, 0));
  } else {
    byColumn = ConjugatePhases(W, column);
    byColumn.resize(Wc);
    byRow = taps(H, H);
  }
}

}  // namespace

SpectralDeconvSolver::~SpectralDeconvSolver() = default;

int SpectralDeconvSolver::Setup(const double* imagePlane, int width, int height, uint32_t options,
                                int threads) {
  imagePlane_ = imagePlane;
  threads_ = std::max(1, threads);
  width_ = width;
  height_ = height;
  options_ = options;
  planeSize_ = static_cast<size_t>(width) * height;
  spectrumSize_ = HalfSpectrumSize(width, height);
  forwardTransform_ = std::make_unique<SpectralTransform>(
      width, height, SpectralTransform::kForward, threads, SpectralTransform::kInPlace);
  inverseTransform_ =
      std::make_unique<SpectralTransform>(width, height, SpectralTransform::kInverse, threads);
  // The solve's planes, for this size: the estimates' two are obtained by the first solve; the
  // image's spectrum passes through the spectrum's before the solve.
  planeA_.reset();
  planeB_.reset();
  spectrum_ = AllocateFftwBuffer<Complex>(spectrumSize_);
  result_ = nullptr;
  ResetDefaults();
  PrecomputeGradientSpectra();
  return 0;
}

void SpectralDeconvSolver::ResetDefaults() {
  iterationBudget = 50;
  tolerance = 0.0005;
  betaCap = 1048576.0;
  betaStart = 1.0;
  betaFactor = 2.0;
}

std::vector<double> SpectralDeconvSolver::gradientPower() const {
  const int Wc = width_ / 2 + 1;
  std::vector<double> power(spectrumSize_);
  for (int v = 0; v < height_; ++v)
    for (int u = 0; u < Wc; ++u)
      power[static_cast<size_t>(v) * Wc + u] = conjDx_.powerByColumn[u] * conjDx_.powerByRow[v] +
                                               conjDy_.powerByColumn[u] * conjDy_.powerByRow[v];
  return power;
}

void SpectralDeconvSolver::PrecomputeGradientSpectra() {
  const std::vector<double> difference{1.0, -1.0};
  FactorConjugateSpectrum(CentredShiftedTaps(difference, 2, 1, width_, height_), width_, height_,
                          conjDx_.byColumn, conjDx_.byRow);
  FactorConjugateSpectrum(CentredShiftedTaps(difference, 1, 2, width_, height_), width_, height_,
                          conjDy_.byColumn, conjDy_.byRow);
  // |Dx|^2 and |Dy|^2 factor as well; the division forms their sum per sample.
  for (FactoredSpectrum* f : {&conjDx_, &conjDy_}) {
    f->powerByColumn.resize(f->byColumn.size());
    f->powerByRow.resize(f->byRow.size());
    for (size_t u = 0; u < f->byColumn.size(); ++u) f->powerByColumn[u] = std::norm(f->byColumn[u]);
    for (size_t v = 0; v < f->byRow.size(); ++v) f->powerByRow[v] = std::norm(f->byRow[v]);
  }

  numerator_ = AllocateFftwBuffer<Complex>(spectrumSize_);
  conjKernel_ = AllocateFftwBuffer<Complex>(spectrumSize_);
  std::fill_n(numerator_.get(), spectrumSize_, Complex(0.0, 0.0));
  std::fill_n(conjKernel_.get(), spectrumSize_, Complex(0.0, 0.0));
  kernelPower_ = AllocateFftwBuffer<double>(spectrumSize_);
  std::fill_n(kernelPower_.get(), spectrumSize_, 0.0);
}

int SpectralDeconvSolver::SetKernel(std::span<const double> kernel, int kernelWidth,
                                    int kernelHeight) {
  if (kernelWidth > width_ || kernelHeight > height_) {
    throw Error("the kernel (" + std::to_string(kernelWidth) + " x " +
                std::to_string(kernelHeight) + " after trimming) is larger than the image (" +
                std::to_string(width_) + " x " + std::to_string(height_) + ")");
  }
  kernelCopy_.assign(kernel.begin(),
                     kernel.begin() + static_cast<size_t>(kernelWidth) * kernelHeight);
  kernelWidth_ = kernelWidth;
  kernelHeight_ = kernelHeight;
  // The kernel centred in the plane and shifted so that its centre is at the origin, transformed
  // in the numerator's storage, which keeps K until the numerator is formed.
  Complex* k = numerator_.get();
  double* plane = reinterpret_cast<double*>(k);
  const size_t rowLength = forwardTransform_->InPlaceRowLength();
  std::fill_n(plane, rowLength * height_, 0.0);
  for (const Tap& tap : CentredShiftedTaps(kernelCopy_, kernelWidth, kernelHeight, width_, height_))
    plane[tap.y * rowLength + tap.x] = tap.value;
  forwardTransform_->ForwardInPlace(k);
  SquaredMagnitudes({k, spectrumSize_}, {kernelPower_.get(), spectrumSize_});
  ConjugateSpectrum({k, spectrumSize_}, {conjKernel_.get(), spectrumSize_});
  if (imagePlane_) {
    SetImage(imagePlane_);
  } else {
    std::fill_n(numerator_.get(), spectrumSize_, Complex(0.0, 0.0));
  }
  return 0;
}

void SpectralDeconvSolver::SetImage(const double* plane) {
  imagePlane_ = plane;
  // The image's own gradients are read by the local prior only; a solve that uses it
  // computes them.
  refGradX_.clear();
  refGradY_.clear();
  // The image's spectrum goes through the solve's spectrum plane, free until the solve.
  const size_t rowLength = forwardTransform_->InPlaceRowLength();
  double* rows = reinterpret_cast<double*>(spectrum_.get());
  RunParallelRanges(height_, threads_, [&](std::ptrdiff_t first, std::ptrdiff_t last) {
    for (std::ptrdiff_t y = first; y < last; ++y)
      std::copy_n(plane + y * width_, width_, rows + y * rowLength);
  });
  forwardTransform_->ForwardInPlace(spectrum_.get());
  MultiplySpectra({conjKernel_.get(), spectrumSize_}, {spectrum_.get(), spectrumSize_},
                  {numerator_.get(), spectrumSize_});
}

void SpectralDeconvSolver::ComputeReferenceGradients() {
  refGradX_.resize(planeSize_);
  refGradY_.resize(planeSize_);
  ForwardDifferences(imagePlane_, width_, height_, refGradX_.data(), refGradY_.data());
}

void SpectralDeconvSolver::SetLocalPrior(std::span<const double> mask, double weight) {
  smoothMask_.assign(mask.begin(), mask.begin() + planeSize_);
  localPriorWeight = weight;
}

int SpectralDeconvSolver::SetIterationSettings(double weight, uint32_t windowWidth,
                                               uint32_t windowHeight, double threshold,
                                               uint32_t count) {
  localPriorWeight = weight;
  smoothWindowWidth = windowWidth;
  smoothWindowHeight = windowHeight;
  smoothThreshold = threshold;
  smoothCount = count;
  // The smooth-region detector that would fill the weight plane lives outside the solver: with
  // none set the plane reads as zero, which switches the local prior off.
  return 0;
}

int SpectralDeconvSolver::SetPriorShape(double a, double l, double k) {
  priorCurvature = a;
  priorThreshold = l;
  priorSlope = k;
  priorOffset = k * l - l * (a * l);
  return 0;
}

int SpectralDeconvSolver::PrepareWeights(uint32_t setting) {
  preparationSetting = setting;
  // Every spectral weight is one, so the weighted |K|^2 and numerator equal the unweighted ones
  // exactly (x * 1.0 == x): the solve reads those, and no weighted copies are kept.
  weightsPrepared_ = true;
  return 0;
}

int SpectralDeconvSolver::SolveWithNoise(double noise) {
  assert(imagePlane_ && weightsPrepared_);
  if (noise <= 1e-12) noise = 1e-12;
  const double lambda = 0.05 / noise;
  betaMax = 100.0 * lambda;
  if (betaCap < betaMax) betaMax = betaCap;
  double beta = betaStart;

  const int W = width_, H = height_;
  const size_t n = planeSize_;
  // A round transforms one real plane, the adjoint differences of the auxiliary gradients, and
  // the division turns its spectrum into L's in place. The first round reads the image itself as
  // L. Each round writes the adjoint differences into the spectrum's array (rows padded for the
  // transform in place) and the new L into the plane that does not hold L; the two planes then
  // change roles, so the previous L is kept for the convergence sums without a copy.
  double* const lent = std::exchange(lentPlane_, nullptr);
  if (!planeA_) planeA_ = AllocateFftwBuffer<double>(n);
  if (!lent && !planeB_) planeB_ = AllocateFftwBuffer<double>(n);
  Complex* const spectrum = spectrum_.get();
  double* const adjoint = reinterpret_cast<double*>(spectrum);
  const size_t adjointRowLength = forwardTransform_->InPlaceRowLength();
  // Each pass is split into one block of rows per thread; the shrink's jobs keep three rows
  // each: Psix and Psiy of the row, and Psiy of the row above.
  const int jobs = std::min(threads_, H);
  std::vector<double> rows(static_cast<size_t>(jobs) * 3 * W);
  std::vector<double> rowChange(H), rowNorm(H);
  const double* latent = imagePlane_;  // the estimate a round reads
  double* next = planeA_.get();        // the plane it writes into
  double* spare = lent ? lent : planeB_.get();

  const double q = localPriorWeight;
  const PriorShape shape{priorSlope, priorCurvature, priorOffset, priorThreshold};
  // With a zero weight or a zero weight plane the local prior's terms are exact zeros, and the
  // cheaper row routine gives bit-identical results.
  const bool localPrior = q != 0.0 && std::any_of(smoothMask_.begin(), smoothMask_.end(),
                                                  [](double m) { return m != 0.0; });
  assert(!localPrior || smoothMask_.size() >= n);
  if (localPrior && refGradX_.empty()) ComputeReferenceGradients();
  const double* mask = smoothMask_.data();
  const double* refX = refGradX_.data();
  const double* refY = refGradY_.data();
  const double* kernelPower = kernelPower_.get();
  const Complex* numerator = numerator_.get();
  const int Wc = W / 2 + 1;
  // The inverse transform's 1 / (W x H) is folded into the spectral division.
  const double inverseScale = 1.0 / static_cast<double>(n);
  const unsigned maxInner = iterationBudget / 2;
  lastSolve = SolveStats{};
  int betaRounds = 0;
  for (double b = beta; b <= betaMax && betaFactor > 1.0; b *= betaFactor) ++betaRounds;

  while (beta <= betaMax) {
    const double gamma = beta / lambda;
    const double t = 1.0 / beta;
    const double s = q / beta;
    const double threshold = (betaMax / beta) * (betaMax / beta) * tolerance;
    unsigned round = 0;
    double ratio;
    const auto roundsStart = std::chrono::steady_clock::now();
    // Psix and Psiy of row y from the current estimate's forward differences.
    auto shrinkRow = [&](int y, double* psiX, double* psiY) {
      const size_t row = static_cast<size_t>(y) * W;
      const double* below = latent + static_cast<size_t>(y + 1 == H ? 0 : y + 1) * W;
      if (localPrior) {
        ShrinkRowWithLocalPrior(latent + row, below, refX + row, refY + row, mask + row, W, t, s,
                                shape, psiX, psiY);
      } else {
        ShrinkRow(latent + row, below, W, t, shape, psiX, psiY);
      }
    };
    do {
      // Auxiliary gradients and their adjoint differences in one pass over the estimate: each
      // job takes a block of rows and first shrinks the row above its block (wrapping), so
      // every value is formed the same way whatever the thread count.
      RunParallelJobs(jobs, threads_, [&](int job) {
        const int first = JobBegin(H, job, jobs), last = JobBegin(H, job + 1, jobs);
        double* psiX = rows.data() + static_cast<size_t>(job) * 3 * W;
        double* psiY = psiX + W;
        double* psiYAbove = psiY + W;
        if (first < last) shrinkRow(first == 0 ? H - 1 : first - 1, psiX, psiYAbove);
        for (int y = first; y < last; ++y) {
          shrinkRow(y, psiX, psiY);
          AdjointDifferencesRow(psiX, psiY, psiYAbove, W, adjoint + y * adjointRowLength);
          std::swap(psiY, psiYAbove);
        }
      });
      forwardTransform_->ForwardInPlace(spectrum);
      // L^ = (gamma R^ + N) / (gamma |D|^2 + |K|^2), row by row.
      RunParallelJobs(jobs, threads_, [&](int job) {
        for (int v = JobBegin(H, job, jobs); v < JobBegin(H, job + 1, jobs); ++v) {
          const size_t row = static_cast<size_t>(v) * Wc;
          const SpectralRow r{.count = Wc,
                              .numerator = numerator + row,
                              .dxPowerByColumn = conjDx_.powerByColumn.data(),
                              .dyPowerByColumn = conjDy_.powerByColumn.data(),
                              .dxPowerRow = conjDx_.powerByRow[v],
                              .dyPowerRow = conjDy_.powerByRow[v],
                              .kernelPower = kernelPower + row,
                              .gamma = gamma,
                              .inverseScale = inverseScale};
          DivideSpectralRow(r, spectrum + row);
        }
      });
      inverseTransform_->InverseUnscaled(spectrum, next);
      // Sums per row, added in row order: the same result for any number of threads.
      RunParallelJobs(jobs, threads_, [&](int job) {
        for (int y = JobBegin(H, job, jobs); y < JobBegin(H, job + 1, jobs); ++y) {
          double c = 0.0, m = 0.0;
          const size_t row = static_cast<size_t>(y) * W;
          for (int x = 0; x < W; ++x) {
            const double d = next[row + x] - latent[row + x];
            c += d * d;
            m += next[row + x] * next[row + x];
          }
          rowChange[y] = c;
          rowNorm[y] = m;
        }
      });
      double change = 0.0, norm = 0.0;
      for (int y = 0; y < H; ++y) {
        change += rowChange[y];
        norm += rowNorm[y];
      }
      ratio = std::sqrt(change) / std::sqrt(norm);
      latent = next;
      std::swap(next, spare);
      ++round;
      if (progress) {
        progress((lastSolve.outerRounds + static_cast<double>(round) / std::max(1u, maxInner)) /
                 betaRounds);
      }
    } while (ratio >= threshold && round < maxInner);
    lastSolve.innerSeconds +=
        std::chrono::duration<double>(std::chrono::steady_clock::now() - roundsStart).count();
    beta *= betaFactor;
    ++lastSolve.outerRounds;
    lastSolve.innerRounds += static_cast<int>(round);
  }
  result_ = latent;
  return 0;
}

}  // namespace marlith
