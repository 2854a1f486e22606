// The blur kernel generators (marlith/kernels.hpp): Gaussian, disc and straight-line kernels,
// each sample the continuous shape integrated exactly over its square, and the specs that name
// them.
#include <algorithm>
#include <charconv>
#include <cmath>
#include <cstdio>
#include <numbers>
#include <string>

#include "engine/psf_models.h"
#include "marlith/kernels.hpp"

namespace marlith {

namespace {

void CheckExtent(double value, const char* what) {
  if (!std::isfinite(value) || value <= 0.0 || value > kMaxKernelExtent) {
    char text[160];
    std::snprintf(text, sizeof text, "the %s must be a number above 0 and at most %g, not %g", what,
                  kMaxKernelExtent, value);
    throw Error(text);
  }
}

Kernel Empty(int rx, int ry) {
  Kernel k;
  k.width = 2 * rx + 1;
  k.height = 2 * ry + 1;
  k.values.assign(static_cast<size_t>(k.width) * k.height, 0.0);
  return k;
}

void Normalise(Kernel& k) {
  double sum = 0.0;
  for (double v : k.values) sum += v;
  for (double& v : k.values) v /= sum;
}

// The largest i >= 0 whose square [i - 1/2, i + 1/2] reaches beyond 0 into |t| < extent.
int HalfWidth(double extent) { return std::max(0, static_cast<int>(std::ceil(extent + 0.5)) - 1); }

// Antiderivative of sqrt(r^2 - t^2) on [-r, r].
double ChordIntegral(double t, double r) {
  t = std::clamp(t, -r, r);
  return 0.5 * (t * std::sqrt(std::max(0.0, r * r - t * t)) + r * r * std::asin(t / r));
}

// The area of the disc of radius r about the origin inside [x0, x1] x [y0, y1]: the integral
// over t in [x0, x1] of min(y1, h(t)) - max(y0, -h(t)) where positive, h(t) = sqrt(r^2 - t^2).
// The integrand is either a constant or +-h(t) plus a constant between its break points (where
// h(t) crosses |y0| or |y1|, and +-r), so each piece integrates exactly.
double DiscAreaInRectangle(double r, double x0, double x1, double y0, double y1) {
  double cuts[8];
  int n = 0;
  cuts[n++] = std::max(x0, -r);
  cuts[n++] = std::min(x1, r);
  if (cuts[0] >= cuts[1]) return 0.0;
  for (double y : {y0, y1}) {
    if (std::abs(y) < r) {
      const double t = std::sqrt(r * r - y * y);
      for (double c : {-t, t})
        if (c > cuts[0] && c < cuts[1]) cuts[n++] = c;
    }
  }
  // At most six cuts: sorted by insertion (std::sort's path for long ranges made GCC warn of
  // reads past the array, which it cannot take).
  for (int i = 1; i < n; ++i)
    for (int j = i; j > 0 && cuts[j - 1] > cuts[j]; --j) std::swap(cuts[j - 1], cuts[j]);
  double area = 0.0;
  for (int i = 0; i + 1 < n; ++i) {
    const double a = cuts[i], b = cuts[i + 1];
    if (b <= a) continue;
    // Between break points the curve stays on one side of y0 and y1, touching them at most
    // (a radius of exactly y1 touches y1 at t = 0): two inner points, one of them off any
    // tangent, tell which side.
    auto h = [r](double t) { return std::sqrt(std::max(0.0, r * r - t * t)); };
    const double h1 = h(a + (b - a) / 3), h2 = h(b - (b - a) / 3);
    const bool topIsCurve = h1 < y1 || h2<y1, bottomIsCurve = -h1> y0 || -h2 > y0;
    const double top = topIsCurve ? h1 : y1, bottom = bottomIsCurve ? -h1 : y0;
    if (top <= bottom) continue;
    const double curve = ChordIntegral(b, r) - ChordIntegral(a, r);
    area += (topIsCurve ? curve : y1 * (b - a)) - (bottomIsCurve ? -curve : y0 * (b - a));
  }
  return area;
}

// The length of the segment p + s d, s in [s0, s1], inside [x0, x1] x [y0, y1] (Liang and
// Barsky's clipping), times |d|.
double ClippedLength(double px, double py, double dx, double dy, double x0, double x1, double y0,
                     double y1) {
  double s0 = 0.0, s1 = 1.0;
  auto clip = [&](double denominator, double numerator) {
    // Keeps the part where denominator * s <= numerator.
    if (denominator == 0.0) return numerator >= 0.0;
    const double s = numerator / denominator;
    if (denominator > 0.0)
      s1 = std::min(s1, s);
    else
      s0 = std::max(s0, s);
    return s0 < s1;
  };
  if (!clip(-dx, px - x0) || !clip(dx, x1 - px) || !clip(-dy, py - y0) || !clip(dy, y1 - py))
    return 0.0;
  return (s1 - s0) * std::hypot(dx, dy);
}

double ParseNumber(std::string_view text, std::string_view spec, const char* what) {
  double value = 0.0;
  const char* end = text.data() + text.size();
  const auto [stop, error] = std::from_chars(text.data(), end, value);
  if (text.empty() || error != std::errc() || stop != end || !std::isfinite(value)) {
    std::string message =
        "kernel '" + std::string(spec) + "': " +
        (text.empty() ? std::string("the ") + what + " is missing"
                      : "'" + std::string(text) + "' is not a number (the " + what + ")");
    if (text.find(',') != std::string_view::npos) message += "; write the decimal point as '.'";
    throw Error(message);
  }
  return value;
}

}  // namespace

Kernel GaussianKernel(double sigma) {
  CheckExtent(sigma, "Gaussian's sigma");
  const int r = static_cast<int>(std::ceil(4.0 * sigma));
  std::vector<double> g(static_cast<size_t>(2 * r + 1));
  const double scale = 1.0 / (sigma * std::numbers::sqrt2);
  for (int i = -r; i <= r; ++i)
    g[static_cast<size_t>(i + r)] =
        0.5 * (std::erf((i + 0.5) * scale) - std::erf((i - 0.5) * scale));
  Kernel k = Empty(r, r);
  for (int y = 0; y < k.height; ++y)
    for (int x = 0; x < k.width; ++x)
      k.values[static_cast<size_t>(y) * k.width + x] =
          g[static_cast<size_t>(y)] * g[static_cast<size_t>(x)];
  Normalise(k);
  return k;
}

Kernel DiskKernel(double radius) {
  CheckExtent(radius, "disc's radius");
  const int r = HalfWidth(radius);
  Kernel k = Empty(r, r);
  for (int y = -r; y <= r; ++y)
    for (int x = -r; x <= r; ++x)
      k.values[static_cast<size_t>(y + r) * k.width + (x + r)] =
          DiscAreaInRectangle(radius, x - 0.5, x + 0.5, y - 0.5, y + 0.5);
  Normalise(k);
  return k;
}

Kernel MotionKernel(double length, double angleDegrees) {
  CheckExtent(length, "motion's length");
  if (!std::isfinite(angleDegrees))
    throw Error("the motion's angle must be a finite number of degrees");
  double degrees = std::fmod(angleDegrees, 360.0);
  if (degrees < 0.0) degrees += 360.0;
  // Exact for the right angles, so that no stray 1e-17 lands in a neighbouring row.
  double c = 0.0, s = 0.0;
  if (degrees == 0.0 || degrees == 180.0) {
    c = degrees == 0.0 ? 1.0 : -1.0;
  } else if (degrees == 90.0 || degrees == 270.0) {
    s = degrees == 90.0 ? 1.0 : -1.0;
  } else {
    c = std::cos(degrees * std::numbers::pi / 180.0);
    s = std::sin(degrees * std::numbers::pi / 180.0);
  }
  const double dx = length * c, dy = length * s;  // y up
  const int rx = HalfWidth(std::abs(dx) / 2), ry = HalfWidth(std::abs(dy) / 2);
  Kernel k = Empty(rx, ry);
  for (int row = 0; row < k.height; ++row) {
    const double y = ry - row;  // the square's centre, y up
    for (int x = -rx; x <= rx; ++x)
      k.values[static_cast<size_t>(row) * k.width + (x + rx)] =
          ClippedLength(-dx / 2, -dy / 2, dx, dy, x - 0.5, x + 0.5, y - 0.5, y + 0.5);
  }
  Normalise(k);
  return k;
}

bool IsKernelSpec(std::string_view text) {
  return text.starts_with("gaussian:") || text.starts_with("disk:") ||
         text.starts_with("motion:") || text.starts_with("widefield:") ||
         text.starts_with("confocal:");
}

KernelSpec ParseKernelSpec(std::string_view text) {
  const size_t colon = text.find(':');
  const std::string_view shape = text.substr(0, colon), value = colon == std::string_view::npos
                                                                    ? std::string_view()
                                                                    : text.substr(colon + 1);
  KernelSpec spec;
  if (shape == "gaussian") {
    spec.shape = KernelShape::kGaussian;
    if (value == "auto") {
      spec.automatic = true;
      return spec;
    }
    spec.size = ParseNumber(value, text, "sigma");
  } else if (shape == "disk") {
    spec.shape = KernelShape::kDisk;
    spec.size = ParseNumber(value, text, "radius");
  } else if (shape == "motion") {
    spec.shape = KernelShape::kMotion;
    const size_t comma = value.find(',');
    if (comma == std::string_view::npos) {
      throw Error("kernel '" + std::string(text) +
                  "': give the length and the angle in degrees, as motion:LENGTH,ANGLE");
    }
    spec.size = ParseNumber(value.substr(0, comma), text, "length");
    spec.angle = ParseNumber(value.substr(comma + 1), text, "angle");
  } else if (shape == "widefield" || shape == "confocal") {
    spec.shape = shape == "widefield" ? KernelShape::kWidefield : KernelShape::kConfocal;
    spec.optics = ParseMicroscopeOptics(value, text, spec.shape == KernelShape::kConfocal);
    return spec;
  } else {
    throw Error("kernel '" + std::string(text) +
                "': unknown shape (gaussian:SIGMA, disk:RADIUS, motion:LENGTH,ANGLE, "
                "widefield:... or confocal:...)");
  }
  try {
    if (spec.shape == KernelShape::kGaussian) CheckExtent(spec.size, "sigma");
    if (spec.shape == KernelShape::kDisk) CheckExtent(spec.size, "radius");
    if (spec.shape == KernelShape::kMotion) CheckExtent(spec.size, "length");
  } catch (const Error& e) {
    throw Error("kernel '" + std::string(text) + "': " + e.what());
  }
  return spec;
}

Kernel MakeKernel(const KernelSpec& spec) {
  if (spec.automatic) throw Error("gaussian:auto needs an image to estimate the sigma from");
  switch (spec.shape) {
    case KernelShape::kGaussian:
      return GaussianKernel(spec.size);
    case KernelShape::kDisk:
      return DiskKernel(spec.size);
    case KernelShape::kMotion:
      return MotionKernel(spec.size, spec.angle);
    case KernelShape::kWidefield:
      return WidefieldPsf(spec.optics);
    case KernelShape::kConfocal:
      return ConfocalPsf(spec.optics);
  }
  throw Error("unknown kernel shape");
}

}  // namespace marlith
