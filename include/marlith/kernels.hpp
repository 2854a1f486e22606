// marlith's blur kernel generators: the blurs users describe rather than hold as a file.
//
//   marlith::Kernel k = marlith::GaussianKernel(1.6);      // lens softness
//   marlith::Deconvolve(image, k.View(), output);
//
// Every sample is the continuous shape integrated over that sample's square (side 1, centred
// on the sample), so radii and lengths below one sample come out right. The array is odd-sized,
// centred on its centre sample (column width / 2, row height / 2: the default kernel origin of
// Deconvolve), just large enough for the shape, and its values sum to 1. Row 0 is the top row.
#pragma once

#include <cstdint>
#include <span>
#include <string>
#include <string_view>
#include <vector>

#include "marlith/deconvolve.hpp"
#include "marlith/export.h"

namespace marlith {

// A kernel that owns its values: height rows of width values, row-major; a 3-D kernel (a
// microscope's PSF over a z-stack) holds depth such planes one after another, the first the
// top of the stack (the smallest z).
struct Kernel {
  std::vector<double> values;
  int32_t width = 0;
  int32_t height = 0;
  int32_t depth = 1;

  // The 2-D view (depth 1 only).
  KernelView View() const { return {values, width, height}; }
};

// The largest sigma, radius and length the generators take (samples): kernels of a few
// thousand samples a side, far beyond any blur deconvolution can undo.
inline constexpr double kMaxKernelExtent = 1000.0;

// A Gaussian of standard deviation sigma (samples), 0 < sigma <= kMaxKernelExtent, out to
// ceil(4 sigma) samples from the centre (the tail beyond holds under 0.01 % of the weight):
//   k(x, y) = g(x) g(y),  g(i) = (erf((i + 1/2) / (sigma sqrt 2)) - erf((i - 1/2) / (sigma sqrt
//   2))) / 2
// renormalised to sum 1. Throws Error for any other sigma.
MARLITH_API Kernel GaussianKernel(double sigma);

// A uniform disc of the given radius (samples), 0 < radius <= kMaxKernelExtent: a lens's
// defocus. Each sample is the exact area of the disc inside its square over the disc's area
// (pi radius^2). A radius up to 1/2 gives the 1 x 1 kernel. Throws Error for any other radius.
MARLITH_API Kernel DiskKernel(double radius);

// A straight shake: the zero-width segment of the given length (samples),
// 0 < length <= kMaxKernelExtent, centred on the centre sample, at angleDegrees
// counter-clockwise from the +x axis with y pointing up as on a screen (so in the row-major
// array, whose rows go down, a 45-degree kernel runs from bottom left to top right). Each
// sample is the length of the segment inside its square over length. Any finite angle is
// taken modulo 360. Throws Error for any other length or angle.
MARLITH_API Kernel MotionKernel(double length, double angleDegrees);

// The smallest sigma EstimateGaussianSigma returns: an image whose edges are as sharp as a
// photograph's own gives this (a blur it cannot tell from none).
inline constexpr double kMinEstimatedSigma = 0.3;

// Estimates the standard deviation (samples) of the Gaussian blur of an image from its edges:
// the ratio of each strong edge's gradient before and after a further Gaussian blur of known
// width gives that edge's width (Zhuo and Sim, "Defocus map estimation from a single image",
// 2011); the median over the strongest edges, less the width a sharp photograph's own edges
// have, is the blur. Meant for photographs blurred by sigma 1 to 3 (lens softness, capture
// sharpening); 2-D test patterns without step edges read wrongly. planes holds channels planes of
// width x height doubles, row-major, one after another, in linear light (proportional to the
// light, not tone-encoded); the channels are averaged. Returns at least kMinEstimatedSigma.
// Throws Error for an image under about 35 samples a side, a sample that is not finite, or one
// with too few clear edges.
MARLITH_API double EstimateGaussianSigma(std::span<const double> planes, int32_t width,
                                         int32_t height, int32_t channels);

// A fluorescence microscope's optics, for its point spread function (PSF). Lengths in
// nanometres in the specimen; wavelengths in vacuum.
struct MicroscopeOptics {
  double na = 0.0;          // numerical aperture of the objective, 0 < na < ri
  double emission = 0.0;    // emission wavelength (the light imaged)
  double excitation = 0.0;  // excitation wavelength (confocal PSFs only)
  double ri = 0.0;          // refractive index of the immersion medium, 1 <= ri <= 3
  double dxy = 0.0;         // pixel size
  double dz = 0.0;          // z step; 0: one in-focus plane (a 2-D PSF)
  int32_t nz = 0;           // planes (odd); 0: enough for the PSF's axial extent (dz > 0)
  int32_t nxy = 0;          // width and height (odd); 0: enough for the PSF's lateral extent
};

// The most samples a generated PSF holds (width x height x depth).
inline constexpr int64_t kMaxPsfSamples = int64_t{1} << 26;

// A widefield microscope's PSF in the Born and Wolf model (an aberration-free lens; defocus
// the only aberration, in its paraxial form):
//   h(r, z) = | integral_0^1 J0(k na r rho) exp(-i k z na^2 rho^2 / (2 ri)) rho d rho |^2,
// k = 2 pi / emission. Its first zero in focus lies at r = 0.61 emission / na, on the axis at
// z = 2 ri emission / na^2. The integral is taken by Gauss-Legendre quadrature with several
// nodes per oscillation, and each sample is h averaged over the sample's square (the in-plane
// pixel area; z is sampled at each plane). The centre plane is the focus (z = 0), plane p at
// z = (p - depth / 2) dz; lateral size nxy or, with 0, 4 emission / na plus the geometric cone's
// radius at the outermost plane on each side of the centre; depth nz, or with dz > 0 and nz 0,
// enough planes to reach twice the first axial zero on each side; 1 with dz 0. Values sum to 1.
// Throws Error naming the parameter for optics out of range (including a PSF of more than
// kMaxPsfSamples samples).
MARLITH_API Kernel WidefieldPsf(const MicroscopeOptics& optics);

// A point-scanning confocal microscope's PSF with a pinhole far smaller than the Airy disc: the
// product of the widefield PSFs (above) at the excitation and at the emission wavelengths, on
// the same grid (sized for the emission wavelength), renormalised to sum 1.
MARLITH_API Kernel ConfocalPsf(const MicroscopeOptics& optics);

enum class KernelShape : int32_t {
  kGaussian = 0,
  kDisk = 1,
  kMotion = 2,
  kWidefield = 3,
  kConfocal = 4
};

// A kernel described in words: "gaussian:SIGMA", "disk:RADIUS", "motion:LENGTH,ANGLE"
// ('.' decimal point), or "gaussian:auto" (the sigma is then estimated from each image); or a
// microscope's PSF from comma-separated KEY=VALUE pairs (nanometres):
// "widefield:na=1.4,wavelength=520,ri=1.515,dxy=65[,dz=200][,nz=33][,nxy=65]" and
// "confocal:na=1.4,excitation=488,emission=520,ri=1.515,dxy=65[,...]" ("wavelength" and
// "emission" name the same).
struct KernelSpec {
  KernelShape shape = KernelShape::kGaussian;
  double size = 0.0;        // sigma, radius or length
  double angle = 0.0;       // degrees, kMotion only
  bool automatic = false;   // "gaussian:auto": size is to be estimated
  MicroscopeOptics optics;  // kWidefield and kConfocal
};

// Whether text names a generated kernel: it starts with "gaussian:", "disk:", "motion:",
// "widefield:" or "confocal:".
MARLITH_API bool IsKernelSpec(std::string_view text);

// Reads a spec as above. Throws Error with one line naming text and what is wrong (an unknown
// shape or key, a missing or malformed number, a value out of the generators' range).
MARLITH_API KernelSpec ParseKernelSpec(std::string_view text);

// The spec's kernel (GaussianKernel, DiskKernel, MotionKernel, WidefieldPsf or ConfocalPsf).
// Throws Error for "gaussian:auto", which needs an image.
MARLITH_API Kernel MakeKernel(const KernelSpec& spec);

}  // namespace marlith
