#include "reference_solver.h"

#include <fftw3.h>

#include <cmath>
#include <complex>

#include "bench/synthesis.h"
#include "plane/deconv_solver.h"

namespace marlith::test {
namespace {

using Spectrum = std::vector<std::complex<double>>;

Spectrum Transform(const Spectrum& in, int W, int H, int sign) {
  Spectrum out(in.size());
  fftw_plan plan = fftw_plan_dft_2d(
      H, W, reinterpret_cast<fftw_complex*>(const_cast<std::complex<double>*>(in.data())),
      reinterpret_cast<fftw_complex*>(out.data()), sign, FFTW_ESTIMATE);
  fftw_execute(plan);
  fftw_destroy_plan(plan);
  return out;
}

Spectrum Forward(const std::vector<double>& plane, int W, int H) {
  return Transform(Spectrum(plane.begin(), plane.end()), W, H, FFTW_FORWARD);
}

std::vector<double> Inverse(const Spectrum& s, int W, int H) {
  std::vector<double> out;
  for (const auto& v : Transform(s, W, H, FFTW_BACKWARD)) out.push_back(v.real() / (W * H));
  return out;
}

// A kw x kh filter placed with its tap (kw/2, kh/2) at the origin, wrapping around: the
// circular blur of a unit impulse at the origin.
std::vector<double> AtOrigin(const std::vector<double>& k, int kw, int kh, int W, int H) {
  std::vector<double> impulse(static_cast<size_t>(W) * H, 0.0);
  impulse[0] = 1.0;
  return synthesis::Blur(impulse, W, H, 1, k, kw, kh, synthesis::BlurBorder::kCircular);
}

void Gradients(const std::vector<double>& p, int W, int H, std::vector<double>& gx,
               std::vector<double>& gy) {
  for (int y = 0; y < H; ++y)
    for (int x = 0; x < W; ++x) {
      const size_t i = static_cast<size_t>(y) * W + x;
      gx[i] = p[static_cast<size_t>(y) * W + (x + 1) % W] - p[i];
      gy[i] = p[static_cast<size_t>((y + 1) % H) * W + x] - p[i];
    }
}

}  // namespace

std::vector<double> ReferenceSolve(const std::vector<double>& observed, int W, int H,
                                   const std::vector<double>& kernel, int kw, int kh,
                                   const ReferenceSettings& settings) {
  const size_t n = static_cast<size_t>(W) * H;
  // Forward differences as filters: dx * p = p(x + 1) - p(x).
  const Spectrum dx = Forward(AtOrigin({1.0, -1.0}, 2, 1, W, H), W, H);  // -1 at 0, 1 at -1
  const Spectrum dy = Forward(AtOrigin({1.0, -1.0}, 1, 2, W, H), W, H);
  const Spectrum k = Forward(AtOrigin(kernel, kw, kh, W, H), W, H);
  const Spectrum y = Forward(observed, W, H);
  const std::vector<double> mask =
      settings.mask.empty() ? std::vector<double>(n, 0.0) : settings.mask;
  std::vector<double> refX(n), refY(n);
  Gradients(observed, W, H, refX, refY);

  double noise = settings.noise <= 1e-12 ? 1e-12 : settings.noise;
  const double lambda = 0.05 / noise;
  const double betaMax = std::min(1048576.0, 100.0 * lambda);
  // The prior's slope, curvature, offset and level (the shrink rule is tested on its own).
  const double slope = 1.0, curvature = 0.0001, level = 0.5;
  const double offset = slope * level - level * (curvature * level);
  std::vector<double> L = observed, gx(n), gy(n), px(n), py(n);
  for (double beta = 1.0; beta <= betaMax; beta *= 2.0) {
    const double gamma = beta / lambda, t = 1.0 / beta, s = settings.localPriorWeight / beta;
    const double threshold = (betaMax / beta) * (betaMax / beta) * 0.0005;
    for (int round = 1; round <= 25; ++round) {
      Gradients(L, W, H, gx, gy);
      for (size_t i = 0; i < n; ++i) {
        px[i] =
            PiecewisePriorShrink(gx[i], refX[i], mask[i], t, s, slope, curvature, offset, level);
        py[i] =
            PiecewisePriorShrink(gy[i], refY[i], mask[i], t, s, slope, curvature, offset, level);
      }
      const std::vector<double> previous = L;
      const Spectrum sx = Forward(px, W, H), sy = Forward(py, W, H);
      Spectrum l(n);
      for (size_t i = 0; i < n; ++i) {
        const std::complex<double> s = std::conj(dx[i]) * sx[i] + std::conj(dy[i]) * sy[i];
        const double d = gamma * std::norm(dx[i]) + gamma * std::norm(dy[i]) + std::norm(k[i]);
        l[i] = (gamma * s + std::conj(k[i]) * y[i]) / d;
      }
      L = Inverse(l, W, H);
      double change = 0.0, norm = 0.0;
      for (size_t i = 0; i < n; ++i) {
        change += (L[i] - previous[i]) * (L[i] - previous[i]);
        norm += L[i] * L[i];
      }
      if (!(std::sqrt(change) / std::sqrt(norm) >= threshold)) break;
    }
  }
  return L;
}

}  // namespace marlith::test
