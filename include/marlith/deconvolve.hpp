// marlith's C++ API: deconvolve an image held in memory with a known blur kernel.
//
//   std::vector<std::uint8_t> rgb = ...;                 // height x width x 3, interleaved
//   std::vector<double> kernel = ...;                    // kh x kw, any scale
//   std::vector<std::uint8_t> out(rgb.size());
//   marlith::Deconvolve(marlith::ConstImageView::Interleaved(rgb.data(), w, h, 3),
//                       {kernel, kw, kh},
//                       marlith::ImageView::Interleaved(out.data(), w, h, 3));
//
// The defaults are the ones a user should get: the noise strength estimated from the image,
// smooth margins widened to fast transform sizes, the kernel's centre sample as its origin.
// Every function here may be called from several threads at once.
#pragma once

#include <cstddef>
#include <cstdint>
#include <functional>
#include <optional>
#include <span>
#include <string_view>
#include <type_traits>
#include <vector>

#include "marlith/error.hpp"
#include "marlith/marlith.h"

namespace marlith {

// How samples are stored. Integer samples are scaled by their full range (255, 65535) to the
// [0, 1] scale the engine works on; floating-point samples are taken on that scale as they are.
enum class SampleType : int32_t { kUInt8 = 0, kUInt16 = 1, kFloat32 = 2, kFloat64 = 3 };

// Bytes of one sample of the type.
MARLITH_API std::size_t SampleSize(SampleType type);

// A borrowed view of width x height x channels samples of one type. Sample (x, y, c) is at
// element x * columnStride + y * rowStride + c * channelStride from data (strides count
// samples, not bytes, and may be negative), so planar, interleaved and strided layouts (numpy
// views included) are all views. The view owns nothing.
template <typename Data>
struct BasicImageView {
  Data* data = nullptr;
  SampleType type = SampleType::kFloat64;
  int32_t width = 0;
  int32_t height = 0;
  int32_t channels = 0;
  std::ptrdiff_t columnStride = 0;
  std::ptrdiff_t rowStride = 0;
  std::ptrdiff_t channelStride = 0;

  // Channels one after another, each height rows of width samples.
  template <typename T>
  static BasicImageView Planar(T* data, int32_t width, int32_t height, int32_t channels = 1) {
    const std::ptrdiff_t w = width, plane = w * height;
    return {data, TypeOf<T>(), width, height, channels, 1, w, plane};
  }
  // Rows of width pixels, each pixel channels samples in a row.
  template <typename T>
  static BasicImageView Interleaved(T* data, int32_t width, int32_t height, int32_t channels) {
    const std::ptrdiff_t c = channels;
    return {data, TypeOf<T>(), width, height, channels, c, c * width, 1};
  }

  // A mutable view reads as a constant one.
  operator BasicImageView<const void>() const {
    return {data, type, width, height, channels, columnStride, rowStride, channelStride};
  }

 private:
  template <typename T>
  static constexpr SampleType TypeOf() {
    using U = std::remove_const_t<T>;
    if constexpr (std::is_same_v<U, std::uint8_t>)
      return SampleType::kUInt8;
    else if constexpr (std::is_same_v<U, std::uint16_t>)
      return SampleType::kUInt16;
    else if constexpr (std::is_same_v<U, float>)
      return SampleType::kFloat32;
    else {
      static_assert(std::is_same_v<U, double>, "samples are uint8, uint16, float or double");
      return SampleType::kFloat64;
    }
  }
};
using ImageView = BasicImageView<void>;
using ConstImageView = BasicImageView<const void>;

// A borrowed view of one channel of width x height x depth samples (a z-stack): sample
// (x, y, z) is at element x * columnStride + y * rowStride + z * sliceStride from data (strides
// in samples, possibly negative). The view owns nothing.
template <typename Data>
struct BasicVolumeView {
  Data* data = nullptr;
  SampleType type = SampleType::kFloat64;
  int32_t width = 0;
  int32_t height = 0;
  int32_t depth = 0;
  std::ptrdiff_t columnStride = 0;
  std::ptrdiff_t rowStride = 0;
  std::ptrdiff_t sliceStride = 0;

  // Slices one after another, each height rows of width samples (numpy's C order of (Z, Y, X)).
  template <typename T>
  static BasicVolumeView Compact(T* data, int32_t width, int32_t height, int32_t depth) {
    const auto plane = BasicImageView<Data>::Planar(data, width, height, depth);
    return {plane.data, plane.type, width, height, depth, 1, plane.rowStride, plane.channelStride};
  }

  // A mutable view reads as a constant one.
  operator BasicVolumeView<const void>() const {
    return {data, type, width, height, depth, columnStride, rowStride, sliceStride};
  }
};
using VolumeView = BasicVolumeView<void>;
using ConstVolumeView = BasicVolumeView<const void>;

// A blur kernel: height rows of width values, row-major, on any scale (it is normalised to
// sum 1 here). Every value must be finite and non-negative, and their sum positive.
struct KernelView {
  std::span<const double> values;
  int32_t width = 0;
  int32_t height = 0;
};

// A volume's blur kernel (point spread function): depth slices of height rows of width values,
// on any scale (normalised to sum 1), its origin at sample (width / 2, height / 2, depth / 2).
struct VolumeKernelView {
  std::span<const double> values;
  int32_t width = 0;
  int32_t height = 0;
  int32_t depth = 0;
};

enum class Boundary : int32_t {
  kPeriodic = 0,  // the image is taken as periodic: right for circularly blurred test images
  kSmooth = 1,    // smooth periodic margins are added first: right for photographs
  kUnknown = 2,   // what lies beyond the frame is unknown: the blur reaches past it, and the
                  // working plane's margin is restored without being observed (photographs
                  // whose blur runs out of the frame)
};

// How the samples encode light. The blur happened in linear light, so samples encoded with a
// tone curve are linearised, restored and encoded back with the same curve.
enum class Colorspace : int32_t {
  kLinear = 0,  // the samples are proportional to light (or are data): restored as they are
  kSrgb = 1,    // the sRGB tone curve
};

// What the noise of a sample is made of.
enum class NoiseModel : int32_t {
  kGaussian = 0,  // white noise, its level the same for every sample or following the light
  kPoisson = 1,   // photon counts over a camera offset (with the read noise of the camera)
};

enum class Margins : int32_t {
  kExact = 0,  // three kernel sizes on every side: the command line's working size, bit for bit
  kFast = 1,   // at least that, widened so that the working sizes factor into 2, 3, 5 and 7,
               // and fitted by a direct solve (a hundredth of the exact fit's time, the same
               // quality)
};

enum class KernelOrigin : int32_t {
  kCenter = 0,   // the kernel array's centre sample (column width / 2, row height / 2) is the
                 // origin, as in scipy.ndimage and scikit-image: blurring with the kernel and
                 // restoring leaves the image where it was, also for off-centre kernels
  kSupport = 1,  // the command line's: the kernel is trimmed to its support, which is centred
};

// Receives the phase running ("margins", "deconvolution", "kernel refinement", "done") and
// the fraction of the whole run done, in [0, 1]; called at most about 100 times a second (and
// once more at the end). Returning false cancels the run: Deconvolve then throws Cancelled.
using ProgressCallback = std::function<bool(std::string_view phase, double fraction)>;

struct DeconvolveOptions {
  // The noise strength (the command line's number: smaller restores more detail and more
  // noise; 0.1 suits 1 % noise). Empty: estimated from the image (EstimateNoise).
  std::optional<double> noise;
  Boundary boundary = Boundary::kSmooth;
  // Applies to Boundary::kSmooth; periodic images are solved at their own (even) size.
  Margins margins = Margins::kFast;
  KernelOrigin kernelOrigin = KernelOrigin::kCenter;
  // How the samples encode light. Arrays' values are data, so the default is kLinear.
  Colorspace colorspace = Colorspace::kLinear;
  // The samples' own tone curve, when not empty (an ICC profile's): toneCurve[i] is the linear
  // light, from 0 to 1, of the encoded value i / (toneCurve.size() - 1), increasing. Used instead
  // of colorspace.
  std::vector<double> toneCurve;
  // A weight for every sample of the image, in [0, 1] (0: not observed, left out of the fit;
  // MATLAB's deconvlucy WEIGHT): a view of the image's width and height with one channel (for
  // every channel) or the image's channel count. No data: every sample weighs 1. Needs
  // Margins::kFast and no refineKernel (Error otherwise).
  BasicImageView<const void> mask;
  // Samples at or above this value (in the image's 0-to-1 range) were clipped by the sensor:
  // the light there was at least that bright, and the fit takes them as bounds, not data.
  // Empty: 1.0 for 8- and 16-bit samples, none for floating point (give 1.0 for floating-point
  // samples decoded from integer files).
  std::optional<double> clipLevel;
  NoiseModel noiseModel = NoiseModel::kGaussian;
  // kPoisson: the camera's baseline in the image's sample units (0 to 65535 for 16-bit
  // samples); empty: estimated from the darkest samples.
  std::optional<double> offset;
  // Volumes: the z step over the xy sample spacing (200 nm steps over 65 nm pixels: 3.08). The
  // gradient prior weighs differences along z by its inverse.
  double voxelAspect = 1.0;
  // Re-estimate the kernel from a first solve (with four times the noise), clean it, and
  // deconvolve with the refined kernel.
  bool refineKernel = false;
  // Threads for the transforms and the passes over the planes; 0: every core.
  int32_t threads = 0;
  ProgressCallback progress;
};

// What a run found and used.
struct DeconvolveReport {
  double noiseLevel = 0.0;     // estimated noise level (standard deviation on the [0, 1] scale);
                               // NaN when options.noise was given
  double noiseStrength = 0.0;  // the noise strength the run used
  double offset = 0.0;         // NoiseModel::kPoisson: the camera offset used, in sample units
  // The kernel the solver used, normalised, trimmed to its support (or to a box centred on the
  // origin) and bordered with one zero sample; refined when options.refineKernel.
  std::vector<double> kernel;
  int32_t kernelWidth = 0;
  int32_t kernelHeight = 0;
  int32_t kernelDepth = 1;
  // The split solver's inner rounds over all channels and its working plane (each round
  // transforms two planes of that size forward and back); 0 on the frequency solver's roads
  // (exact margins, kernel refinement).
  int32_t innerRounds = 0;
  int32_t workingWidth = 0;
  int32_t workingHeight = 0;
};

// Thrown when the progress callback asks to stop.
class MARLITH_API Cancelled : public Error {
 public:
  Cancelled() : Error("the run was cancelled") {}
};

// Deconvolves image with kernel under options into output, which must have image's width,
// height and channel count (its sample type and layout may differ; it may be the same memory
// as image: the input is read whole before anything is written). Every channel is restored on
// its own; pass a view without it to leave an alpha channel out. Integer outputs are rounded
// and clipped to their range; floating-point outputs are neither rounded nor clipped.
// Throws Error with one line saying what is wrong (an empty or non-finite view, a bad kernel,
// a kernel larger than the image, an unusable option), Cancelled when the progress callback
// says so, and std::bad_alloc when memory runs out. On any exception the output may be
// partly written.
MARLITH_API DeconvolveReport Deconvolve(const ConstImageView& image, const KernelView& kernel,
                                        const ImageView& output,
                                        const DeconvolveOptions& options = {});

// Deconvolves a volume (one channel of a z-stack) with a 3-D kernel under options into output
// of the volume's size, in 3-D: the gradient prior along x, y and z (z weighed by
// 1 / options.voxelAspect), borders along z unknown unless options.boundary is kPeriodic. A
// kernel of depth 1 blurs within each slice. Options as for images, but margins must be kFast,
// without kernel refinement, mask or tone curve; the report's kernel is the centred, bordered
// kernel, slices one after another, its depth in kernelDepth. Throws as the image overload does.
MARLITH_API DeconvolveReport Deconvolve(const ConstVolumeView& volume,
                                        const VolumeKernelView& kernel, const VolumeView& output,
                                        const DeconvolveOptions& options = {});

struct NoiseReport {
  double level = 0.0;     // standard deviation of the image's white noise, on the [0, 1] scale
  double strength = 0.0;  // the noise strength a run with automatic noise chooses for it
};

// Estimates the noise level of a blurred image (robust to blur, texture and 8-bit
// quantisation) and the noise strength that deconvolving it should use. Throws Error for an
// empty or non-finite view.
MARLITH_API NoiseReport EstimateNoise(const ConstImageView& image);

}  // namespace marlith
