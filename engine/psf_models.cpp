// Microscope PSFs (marlith/kernels.hpp): the Born and Wolf widefield PSF by quadrature of its
// radial integral, each sample averaged over its pixel; the confocal PSF as the product of two;
// and the KEY=VALUE specs that describe them.
#include "engine/psf_models.h"

#include <algorithm>
#include <charconv>
#include <cmath>
#include <cstdio>
#include <numbers>
#include <string>
#include <vector>

namespace marlith {

namespace {

[[noreturn]] void Refuse(const char* format, double value) {
  char text[200];
  std::snprintf(text, sizeof text, format, value);
  throw Error(text);
}

void CheckOptics(const MicroscopeOptics& o, bool confocal) {
  if (!std::isfinite(o.ri) || o.ri < 1.0 || o.ri > 3.0)
    Refuse("the refractive index (ri) must be between 1 and 3, not %g", o.ri);
  if (!std::isfinite(o.na) || o.na <= 0.0 || o.na >= o.ri)
    Refuse("the numerical aperture (na) must be above 0 and below the refractive index, not %g",
           o.na);
  const double wavelengths[] = {o.emission, confocal ? o.excitation : o.emission};
  for (const double w : wavelengths)
    if (!std::isfinite(w) || w < 10.0 || w > 100000.0)
      Refuse("a wavelength must be between 10 and 100000 nm, not %g", w);
  if (!std::isfinite(o.dxy) || o.dxy <= 0.0)
    Refuse("the pixel size (dxy) must be a number of nanometres above 0, not %g", o.dxy);
  if (!std::isfinite(o.dz) || o.dz < 0.0)
    Refuse("the z step (dz) must be a number of nanometres above 0, not %g", o.dz);
  if (o.nz < 0 || (o.nz > 0 && o.nz % 2 == 0))
    Refuse("the planes (nz) must be odd, so that the focus is the centre plane, not %g", o.nz);
  if (o.nz > 1 && o.dz == 0.0) throw Error("the planes (nz) need the z step (dz)");
  if (o.nxy < 0 || (o.nxy > 0 && o.nxy % 2 == 0))
    Refuse("the size (nxy) must be odd, so that the PSF is centred on a sample, not %g", o.nxy);
}

// Gauss-Legendre nodes and weights on [0, 1] (Newton's method on P_n from the usual first
// guesses): exact for polynomials up to degree 2n - 1.
void GaussLegendre(int n, std::vector<double>& nodes, std::vector<double>& weights) {
  nodes.resize(static_cast<size_t>(n));
  weights.resize(static_cast<size_t>(n));
  for (int i = 0; i < n; ++i) {
    double x = std::cos(std::numbers::pi * (i + 0.75) / (n + 0.5)), derivative = 1.0;
    for (int iteration = 0; iteration < 100; ++iteration) {
      double p0 = 1.0, p1 = x;
      for (int j = 2; j <= n; ++j) {
        const double p2 = ((2 * j - 1) * x * p1 - (j - 1) * p0) / j;
        p0 = p1, p1 = p2;
      }
      derivative = n * (x * p1 - p0) / (x * x - 1.0);
      const double step = p1 / derivative;
      x -= step;
      if (std::abs(step) < 1e-15) break;
    }
    nodes[static_cast<size_t>(i)] = 0.5 * (1.0 + x);
    weights[static_cast<size_t>(i)] = 1.0 / ((1.0 - x * x) * derivative * derivative);
  }
}

// The grid a PSF is sampled on: lateral half-width, planes, supersampling and radial step.
struct PsfGrid {
  int half = 0, planes = 1;
  int supersampling = 1;  // sub-samples per pixel side
  double step = 0.0;      // nm between the radial profile's points
  int points = 0;         // radial points 0, step, ..., (points - 1) step
};

PsfGrid GridFor(const MicroscopeOptics& o, double shortestWavelength) {
  const double axialZero = 2.0 * o.ri * o.emission / (o.na * o.na);
  double planes = 1.0;
  if (o.nz > 0)
    planes = o.nz;
  else if (o.dz > 0.0)
    planes = 2.0 * std::ceil(2.0 * axialZero / o.dz) + 1.0;
  const double zMax = (planes - 1.0) / 2.0 * o.dz;
  // In the paraxial model the defocused light fills the cone of half-angle na / ri.
  const double half = o.nxy > 0 ? (o.nxy - 1) / 2.0
                                : std::ceil((4.0 * o.emission / o.na + zMax * o.na / o.ri) / o.dxy);
  const double samples = (2.0 * half + 1.0) * (2.0 * half + 1.0) * planes;
  if (samples > static_cast<double>(kMaxPsfSamples)) {
    char text[240];
    std::snprintf(text, sizeof text,
                  "the PSF would be %.0f x %.0f x %.0f samples, more than %lld: give a larger "
                  "pixel size or z step, or fewer samples (nxy, nz)",
                  2.0 * half + 1.0, 2.0 * half + 1.0, planes,
                  static_cast<long long>(kMaxPsfSamples));
    throw Error(text);
  }
  PsfGrid g;
  g.half = static_cast<int>(half);
  g.planes = static_cast<int>(planes);
  // Sub-samples at most 1/20 of wavelength / na apart: the pixel average holds to about 1e-4.
  const double fine = 0.05 * shortestWavelength / o.na;
  g.supersampling = static_cast<int>(std::clamp(std::ceil(o.dxy / fine), 3.0, 64.0));
  g.step = o.dxy / (2.0 * g.supersampling);
  const double reach = std::numbers::sqrt2 * (g.half + 0.5) * o.dxy;
  g.points = static_cast<int>(std::ceil(reach / g.step)) + 2;
  return g;
}

// h(r, z) of the Born and Wolf integral at the grid's radial points, for planes 0 to
// grid.planes / 2 (the rest mirror them: h(r, -z) = h(r, z)); profile[p * points + m].
std::vector<double> RadialProfiles(const MicroscopeOptics& o, double wavelength, const PsfGrid& g) {
  const double k = 2.0 * std::numbers::pi / wavelength;
  const int centre = g.planes / 2;
  const double vMax = k * o.na * g.step * (g.points - 1);
  const double aMax = k * centre * o.dz * o.na * o.na / (2.0 * o.ri);
  // The integrand turns through at most vMax + 2 aMax radians over [0, 1]; several nodes per
  // radian keep the quadrature's error far below the pixel average's.
  const int n = 32 + static_cast<int>(std::ceil(1.5 * (vMax + 2.0 * aMax)));
  std::vector<double> rho, w;
  GaussLegendre(n, rho, w);
  // exp(-i a rho^2) rho w for each plane.
  std::vector<double> re(static_cast<size_t>(centre + 1) * n), im(re.size());
  for (int p = 0; p <= centre; ++p) {
    const double a = k * (p - centre) * o.dz * o.na * o.na / (2.0 * o.ri);
    for (int j = 0; j < n; ++j) {
      const double phase = a * rho[j] * rho[j];
      re[static_cast<size_t>(p) * n + j] = std::cos(phase) * rho[j] * w[j];
      im[static_cast<size_t>(p) * n + j] = -std::sin(phase) * rho[j] * w[j];
    }
  }
  std::vector<double> profile(static_cast<size_t>(centre + 1) * g.points);
  std::vector<double> bessel(static_cast<size_t>(n));
  for (int m = 0; m < g.points; ++m) {
    const double v = k * o.na * g.step * m;
    for (int j = 0; j < n; ++j) bessel[j] = std::cyl_bessel_j(0.0, v * rho[j]);
    for (int p = 0; p <= centre; ++p) {
      const double* c = &re[static_cast<size_t>(p) * n];
      const double* s = &im[static_cast<size_t>(p) * n];
      double sumRe = 0.0, sumIm = 0.0;
      for (int j = 0; j < n; ++j) sumRe += bessel[j] * c[j], sumIm += bessel[j] * s[j];
      profile[static_cast<size_t>(p) * g.points + m] = sumRe * sumRe + sumIm * sumIm;
    }
  }
  return profile;
}

// Each pixel the mean of the profile over its supersampling^2 sub-samples (linear between the
// profile's points); one quadrant and half the planes computed, the rest mirrored, so the PSF
// is exactly symmetric in x, y and z. Normalised to sum 1.
Kernel PixelAverage(const std::vector<double>& profile, const MicroscopeOptics& o,
                    const PsfGrid& g) {
  Kernel psf;
  psf.width = psf.height = 2 * g.half + 1;
  psf.depth = g.planes;
  const size_t side = static_cast<size_t>(psf.width), planeSize = side * side;
  psf.values.assign(planeSize * g.planes, 0.0);
  const int s = g.supersampling, centre = g.planes / 2;
  std::vector<double> offsets(static_cast<size_t>(s));
  for (int i = 0; i < s; ++i) offsets[i] = ((i + 0.5) / s - 0.5) * o.dxy;
  for (int p = 0; p <= centre; ++p) {
    const double* h = &profile[static_cast<size_t>(p) * g.points];
    for (int y = 0; y <= g.half; ++y)
      for (int x = 0; x <= g.half; ++x) {
        double sum = 0.0;
        for (const double oy : offsets)
          for (const double ox : offsets) {
            const double t = std::hypot(x * o.dxy + ox, y * o.dxy + oy) / g.step;
            const int i = std::min(static_cast<int>(t), g.points - 2);
            const double f = t - i;
            sum += (1.0 - f) * h[i] + f * h[i + 1];
          }
        const double value = sum / (s * s);
        for (const int plane : {p, g.planes - 1 - p})
          for (const int row : {g.half - y, g.half + y})
            for (const int column : {g.half - x, g.half + x})
              psf.values[plane * planeSize + row * side + column] = value;
      }
  }
  double total = 0.0;
  for (const double v : psf.values) total += v;
  for (double& v : psf.values) v /= total;
  return psf;
}

double ParseValue(std::string_view text, std::string_view key, std::string_view spec) {
  double value = 0.0;
  const char* end = text.data() + text.size();
  const auto [stop, error] = std::from_chars(text.data(), end, value);
  if (text.empty() || error != std::errc() || stop != end || !std::isfinite(value))
    throw Error("kernel '" + std::string(spec) + "': " +
                (text.empty()
                     ? "the value of " + std::string(key) + " is missing"
                     : "'" + std::string(text) + "' is not a number (" + std::string(key) + ")"));
  return value;
}

}  // namespace

Kernel WidefieldPsf(const MicroscopeOptics& optics) {
  CheckOptics(optics, false);
  const PsfGrid grid = GridFor(optics, optics.emission);
  return PixelAverage(RadialProfiles(optics, optics.emission, grid), optics, grid);
}

Kernel ConfocalPsf(const MicroscopeOptics& optics) {
  CheckOptics(optics, true);
  const PsfGrid grid = GridFor(optics, std::min(optics.emission, optics.excitation));
  std::vector<double> profile = RadialProfiles(optics, optics.emission, grid);
  const std::vector<double> excitation = RadialProfiles(optics, optics.excitation, grid);
  for (size_t i = 0; i < profile.size(); ++i) profile[i] *= excitation[i];
  return PixelAverage(profile, optics, grid);
}

MicroscopeOptics ParseMicroscopeOptics(std::string_view pairs, std::string_view spec,
                                       bool confocal) {
  MicroscopeOptics o;
  bool seen[7] = {};
  static constexpr const char* kKeys[] = {"na", "emission", "excitation", "ri", "dxy", "dz", "nz"};
  while (!pairs.empty()) {
    const size_t comma = pairs.find(',');
    const std::string_view pair = pairs.substr(0, comma);
    pairs = comma == std::string_view::npos ? std::string_view() : pairs.substr(comma + 1);
    const size_t equals = pair.find('=');
    std::string_view key = pair.substr(0, equals);
    if (equals == std::string_view::npos)
      throw Error("kernel '" + std::string(spec) + "': '" + std::string(pair) +
                  "' is not KEY=VALUE");
    const double value = ParseValue(pair.substr(equals + 1), key, spec);
    if (key == "wavelength") key = "emission";
    const auto wholeNumber = [&](int32_t& field) {
      if (value != std::floor(value) || value < 0 || value > 1e6)
        throw Error("kernel '" + std::string(spec) + "': " + std::string(key) +
                    " must be a whole number of samples");
      field = static_cast<int32_t>(value);
    };
    int index = 0;
    if (key == "na")
      o.na = value;
    else if (key == "emission")
      o.emission = value, index = 1;
    else if (key == "excitation" && confocal)
      o.excitation = value, index = 2;
    else if (key == "ri")
      o.ri = value, index = 3;
    else if (key == "dxy")
      o.dxy = value, index = 4;
    else if (key == "dz")
      o.dz = value, index = 5;
    else if (key == "nz")
      wholeNumber(o.nz), index = 6;
    else if (key == "nxy")
      wholeNumber(o.nxy), index = -1;
    else
      throw Error("kernel '" + std::string(spec) + "': unknown key '" + std::string(key) +
                  (confocal ? "' (na, excitation, emission, ri, dxy, dz, nz, nxy)"
                            : "' (na, wavelength, ri, dxy, dz, nz, nxy)"));
    if (index >= 0) seen[index] = true;
  }
  for (int i = 0; i < 5; ++i)
    if (!seen[i] && (i != 2 || confocal))
      throw Error("kernel '" + std::string(spec) +
                  "': " + (i == 1 && !confocal ? std::string("wavelength") : kKeys[i]) +
                  " is missing (sizes and wavelengths in nanometres)");
  try {
    CheckOptics(o, confocal);
    GridFor(o, std::min(o.emission, confocal ? o.excitation : o.emission));  // its size
  } catch (const Error& e) {
    throw Error("kernel '" + std::string(spec) + "': " + e.what());
  }
  return o;
}

}  // namespace marlith
