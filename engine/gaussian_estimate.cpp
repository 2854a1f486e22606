// The Gaussian blur of an image estimated from its edges (marlith/kernels.hpp): the re-blur
// gradient ratio of Zhuo and Sim, "Defocus map estimation from a single image" (Pattern
// Recognition 44, 2011), with one sigma for the whole image.
#include <algorithm>
#include <cmath>
#include <numbers>
#include <string>
#include <vector>

#include "engine/noise_estimate.h"
#include "marlith/kernels.hpp"

namespace marlith {

namespace {

// The gradients are taken on the image smoothed by kDerivativeSigma (noise), and again after
// re-blurs by kReblurSigma and kSecondReblurSigma, whose sizes near the blurs estimated keep the
// ratios well away from 1. A step edge gives both re-blurs the same width; the two widths of a
// thin line, a corner or texture differ, and such samples are left out.
constexpr double kDerivativeSigma = 1.0;
constexpr double kReblurSigma = 2.0;
constexpr double kSecondReblurSigma = 3.0;
constexpr double kStepTolerance = 0.2;  // of the larger width^2
// A step edge's gradient profile across it is a Gaussian of variance sigma^2 + the derivative's
// own (kDerivativeSigma^2, plus 1/3 for the central difference's box of width 2) + the spread
// of the sharp image's own edges. The last is what the scene gives; kEdgeVariance holds all
// three, measured on scikit-image's sample photographs (bench/kernel_shapes_bench.py --set train:
// 0.9 to 3.1 from image to image, 1.8 their median; the spread is the scene's and bounds the
// estimate's accuracy).
constexpr double kEdgeVariance = 1.8;
// Edge samples whose gradient is above this many noise deviations of the gradient.
constexpr double kNoiseMargin = 10.0;
// Of those, the strongest this fraction give the estimate (weak edges are mostly texture).
constexpr double kStrongShare = 0.25;
constexpr size_t kFewestEdges = 50;
// The estimate is read at this quantile of the strong edges' widths: the median (the 20th
// percentile followed the blur's width with a slope of 0.66 on the training photographs, the
// median with 0.94).
constexpr double kSharpestShare = 0.5;

std::vector<double> SampledGaussian(double sigma) {
  const int r = static_cast<int>(std::ceil(4.0 * sigma));
  std::vector<double> g(static_cast<size_t>(2 * r + 1));
  double sum = 0.0;
  for (int i = -r; i <= r; ++i)
    sum += g[static_cast<size_t>(i + r)] = std::exp(-i * i / (2 * sigma * sigma));
  for (double& v : g) v /= sum;
  return g;
}

// Separable convolution with g in both directions, the borders replicated.
std::vector<double> Smooth(const std::vector<double>& in, int w, int h,
                           const std::vector<double>& g) {
  const int r = static_cast<int>(g.size() / 2);
  std::vector<double> rows(in.size()), out(in.size());
  for (int y = 0; y < h; ++y)
    for (int x = 0; x < w; ++x) {
      double s = 0.0;
      for (int i = -r; i <= r; ++i)
        s += g[static_cast<size_t>(i + r)] *
             in[static_cast<size_t>(y) * w + std::clamp(x + i, 0, w - 1)];
      rows[static_cast<size_t>(y) * w + x] = s;
    }
  for (int y = 0; y < h; ++y)
    for (int x = 0; x < w; ++x) {
      double s = 0.0;
      for (int i = -r; i <= r; ++i)
        s += g[static_cast<size_t>(i + r)] *
             rows[static_cast<size_t>(std::clamp(y + i, 0, h - 1)) * w + x];
      out[static_cast<size_t>(y) * w + x] = s;
    }
  return out;
}

struct Gradients {
  std::vector<double> x, y;
};

Gradients CentralDifferences(const std::vector<double>& p, int w, int h) {
  Gradients g{std::vector<double>(p.size()), std::vector<double>(p.size())};
  for (int y = 1; y + 1 < h; ++y)
    for (int x = 1; x + 1 < w; ++x) {
      const size_t i = static_cast<size_t>(y) * w + x;
      g.x[i] = 0.5 * (p[i + 1] - p[i - 1]);
      g.y[i] = 0.5 * (p[i + w] - p[i - w]);
    }
  return g;
}

// The peak of a Gaussian profile through the samples a, b, c one step apart, b the largest:
// exact for a Gaussian, whose logarithm is a parabola, wherever its peak lies between them.
double PeakOfProfile(double a, double b, double c) {
  const double la = std::log(a), lb = std::log(b), lc = std::log(c);
  const double curvature = 2 * lb - la - lc;
  if (!(curvature > 0.0)) return b;
  return std::exp(lb + (lc - la) * (lc - la) / (8 * curvature));
}

}  // namespace

double EstimateGaussianSigma(std::span<const double> planes, int32_t width, int32_t height,
                             int32_t channels) {
  const int w = width, h = height;
  const int border = static_cast<int>(std::ceil(4 * (kSecondReblurSigma + kDerivativeSigma))) + 2;
  if (w <= 2 * border + 8 || h <= 2 * border + 8 || channels < 1 ||
      planes.size() < static_cast<size_t>(w) * h * channels) {
    throw Error("the image is too small to estimate its blur from (" + std::to_string(w) + " x " +
                std::to_string(h) + "; at least " + std::to_string(2 * border + 9) + " a side)");
  }
  const size_t n = static_cast<size_t>(w) * h;
  std::vector<double> grey(n, 0.0);
  for (int c = 0; c < channels; ++c)
    for (size_t i = 0; i < n; ++i) grey[i] += planes[c * n + i] / channels;
  for (double v : grey)
    if (!std::isfinite(v)) throw Error("the image holds a sample that is not finite");

  // The gradients' noise: white noise of level s gives central differences of a
  // g-smoothed plane a deviation of s sqrt(sum over x, y of (g(x + 1) - g(x - 1))^2 g(y)^2 / 4).
  const std::vector<double> g = SampledGaussian(kDerivativeSigma);
  double dd = 0.0, gg = 0.0;
  for (size_t i = 0; i < g.size(); ++i) {
    const double d = 0.5 * ((i + 1 < g.size() ? g[i + 1] : 0.0) - (i > 0 ? g[i - 1] : 0.0));
    dd += d * d;
    gg += g[i] * g[i];
  }
  const double noise = EstimateNoiseLevel(grey, w, h, 1) * std::sqrt(dd * gg);

  const Gradients d = CentralDifferences(Smooth(grey, w, h, g), w, h);
  const std::vector<double> reblur = SampledGaussian(kReblurSigma);
  const std::vector<double> reblur2 = SampledGaussian(kSecondReblurSigma);
  std::vector<double> magnitude(n), reblurred(n), reblurred2(n);
  for (size_t i = 0; i < n; ++i) magnitude[i] = std::hypot(d.x[i], d.y[i]);
  {
    const Gradients r{Smooth(d.x, w, h, reblur), Smooth(d.y, w, h, reblur)};
    for (size_t i = 0; i < n; ++i) reblurred[i] = std::hypot(r.x[i], r.y[i]);
  }
  {
    const Gradients r{Smooth(d.x, w, h, reblur2), Smooth(d.y, w, h, reblur2)};
    for (size_t i = 0; i < n; ++i) reblurred2[i] = std::hypot(r.x[i], r.y[i]);
  }

  // Edge samples: local maxima of the gradient along its direction (one of four), whose
  // neighbours there bound a profile the ratio can be read from.
  struct Edge {
    double strength, variance;
  };
  std::vector<Edge> edges;
  for (int y = border; y < h - border; ++y)
    for (int x = border; x < w - border; ++x) {
      const size_t i = static_cast<size_t>(y) * w + x;
      const double m = magnitude[i];
      if (m <= kNoiseMargin * noise || m <= 0.0) continue;
      const double angle = std::atan2(d.y[i], d.x[i]);
      const int octant = static_cast<int>(std::lround(angle / (std::numbers::pi / 4))) & 3;
      static constexpr int kStep[4][2] = {{1, 0}, {1, 1}, {0, 1}, {-1, 1}};
      const ptrdiff_t step = kStep[octant][1] * static_cast<ptrdiff_t>(w) + kStep[octant][0];
      const double before = magnitude[i - step], after = magnitude[i + step];
      if (!(m > before && m >= after) || before <= 0.0 || after <= 0.0) continue;
      const double peak = PeakOfProfile(before, m, after);
      // A Gaussian profile of variance v re-blurred by s peaks lower by sqrt(v / (v + s^2)).
      auto width = [&](const std::vector<double>& r, double s) {
        const double ratio = peak / PeakOfProfile(r[i - step], r[i], r[i + step]);
        return ratio > 1.0 ? s * s / (ratio * ratio - 1.0) : -1.0;
      };
      const double v1 = width(reblurred, kReblurSigma), v2 = width(reblurred2, kSecondReblurSigma);
      if (v1 <= 0.0 || v2 <= 0.0 || std::abs(v1 - v2) > kStepTolerance * std::max(v1, v2)) continue;
      edges.push_back({m, 0.5 * (v1 + v2)});
    }
  if (edges.size() < kFewestEdges) {
    throw Error("too few clear edges (" + std::to_string(edges.size()) +
                ") to estimate the blur from; give the Gaussian's sigma as a number");
  }
  const size_t strong = std::max(kFewestEdges, static_cast<size_t>(kStrongShare * edges.size()));
  std::nth_element(edges.begin(), edges.begin() + (strong - 1), edges.end(),
                   [](const Edge& a, const Edge& b) { return a.strength > b.strength; });
  std::vector<double> variances(strong);
  for (size_t i = 0; i < strong; ++i) variances[i] = edges[i].variance;
  const size_t at = static_cast<size_t>(kSharpestShare * (strong - 1));
  std::nth_element(variances.begin(), variances.begin() + at, variances.end());
  const double variance = variances[at] - kEdgeVariance;
  // A blur narrower than the sharp edges' own spread reads as about none.
  return std::sqrt(std::max(variance, kMinEstimatedSigma * kMinEstimatedSigma));
}

}  // namespace marlith
