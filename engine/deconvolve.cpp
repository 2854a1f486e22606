// The options API: image views in any sample type and layout, kernel conventions, automatic
// noise strength, progress and cancellation, over the engine's solver runs.
#include "marlith/deconvolve.hpp"

#include <algorithm>
#include <chrono>
#include <cmath>
#include <limits>
#include <string>

#include "engine/engine_driver.h"
#include "engine/frequency_solver_run.h"
#include "engine/light_curve.h"
#include "engine/noise_estimate.h"
#include "engine/photon_counts.h"
#include "engine/split_solver_run.h"
#include "image/size_check.h"

namespace marlith {

std::size_t SampleSize(SampleType type) {
  switch (type) {
    case SampleType::kUInt8:
      return 1;
    case SampleType::kUInt16:
      return 2;
    case SampleType::kFloat32:
      return 4;
    case SampleType::kFloat64:
      return 8;
  }
  return 0;
}

namespace {

template <typename View>
void CheckView(const View& v, const char* what) {
  const std::string name(what);
  if (!v.data) throw Error(name + " has no data");
  if (SampleSize(v.type) == 0) throw Error(name + " has an unknown sample type");
  if (v.width < 1 || v.height < 1 || v.channels < 1) {
    throw Error(name + " must be at least 1 x 1 x 1, not " + std::to_string(v.width) + " x " +
                std::to_string(v.height) + " x " + std::to_string(v.channels));
  }
  if (!SizeWithin(kMaxRequestSamples, {v.width, v.height, v.channels})) {
    throw Error(name + " of " + std::to_string(v.width) + " x " + std::to_string(v.height) + " x " +
                std::to_string(v.channels) + " samples is too large");
  }
}

// The offset of sample (x, y, c) in samples.
template <typename View>
std::ptrdiff_t Offset(const View& v, int x, int y, int c) {
  return x * v.columnStride + y * v.rowStride + c * v.channelStride;
}

// The view's samples as planar doubles on the [0, 1] scale.
std::vector<double> ReadPlanes(const ConstImageView& v) {
  const size_t planeSize = static_cast<size_t>(v.width) * v.height;
  std::vector<double> planes = NewImagePlanes(planeSize * v.channels);
  auto read = [&](auto* data, double scale) {
    for (int c = 0; c < v.channels; ++c)
      for (int y = 0; y < v.height; ++y) {
        double* row = planes.data() + c * planeSize + static_cast<size_t>(y) * v.width;
        for (int x = 0; x < v.width; ++x) row[x] = data[Offset(v, x, y, c)] * scale;
      }
  };
  switch (v.type) {
    case SampleType::kUInt8:
      read(static_cast<const uint8_t*>(v.data), 1.0 / 255.0);
      break;
    case SampleType::kUInt16:
      read(static_cast<const uint16_t*>(v.data), 1.0 / 65535.0);
      break;
    case SampleType::kFloat32:
      read(static_cast<const float*>(v.data), 1.0);
      break;
    case SampleType::kFloat64:
      read(static_cast<const double*>(v.data), 1.0);
      break;
  }
  CheckFiniteSamples(planes, v.width, v.height, "the image");
  return planes;
}

// Writes planar doubles into the view: integers rounded and clipped, floats as they are.
void WritePlanes(std::span<const double> planes, const ImageView& v) {
  const size_t planeSize = static_cast<size_t>(v.width) * v.height;
  auto write = [&](auto* data, auto convert) {
    for (int c = 0; c < v.channels; ++c)
      for (int y = 0; y < v.height; ++y) {
        const double* row = planes.data() + c * planeSize + static_cast<size_t>(y) * v.width;
        for (int x = 0; x < v.width; ++x) data[Offset(v, x, y, c)] = convert(row[x]);
      }
  };
  auto integer = [](double range) {
    return [range](double s) { return std::nearbyint(std::clamp(s, 0.0, 1.0) * range); };
  };
  switch (v.type) {
    case SampleType::kUInt8:
      write(static_cast<uint8_t*>(v.data),
            [f = integer(255.0)](double s) { return static_cast<uint8_t>(f(s)); });
      break;
    case SampleType::kUInt16:
      write(static_cast<uint16_t*>(v.data),
            [f = integer(65535.0)](double s) { return static_cast<uint16_t>(f(s)); });
      break;
    case SampleType::kFloat32:
      write(static_cast<float*>(v.data), [](double s) { return static_cast<float>(s); });
      break;
    case SampleType::kFloat64:
      write(static_cast<double*>(v.data), [](double s) { return s; });
      break;
  }
}

// The kernel divided by its sum, after checking every value.
std::vector<double> NormalisedKernel(const KernelView& k) {
  if (k.width < 1 || k.height < 1) {
    throw Error("the kernel is empty (" + std::to_string(k.width) + " x " +
                std::to_string(k.height) + ")");
  }
  const size_t count = static_cast<size_t>(k.width) * k.height;
  if (!SizeWithin(kMaxRequestSamples, {k.width, k.height}) || k.values.size() < count) {
    throw Error("the kernel's " + std::to_string(k.values.size()) + " values do not fill " +
                std::to_string(k.width) + " x " + std::to_string(k.height));
  }
  std::vector<double> kernel(k.values.begin(), k.values.begin() + count);
  double sum = 0.0;
  for (size_t i = 0; i < count; ++i) {
    const double v = kernel[i];
    auto where = [&] {
      return " at row " + std::to_string(i / k.width) + ", column " + std::to_string(i % k.width);
    };
    if (!std::isfinite(v))
      throw Error("the kernel holds a value that is not a finite number" + where());
    if (v < 0.0)
      throw Error("the kernel holds a negative value (" + std::to_string(v) + ")" + where());
    sum += v;
  }
  if (!(sum > 0.0)) throw Error("the kernel sums to 0");
  if (!std::isfinite(sum)) throw Error("the kernel's sum is not a finite number");
  for (double& v : kernel) v /= sum;
  return kernel;
}

// The kernel in a box centred on its origin sample (width / 2, height / 2), just large enough
// for its support (the samples above a 255th of its peak, as the support convention trims
// them), and bordered with one zero sample. The engine centres an odd-sized kernel on the
// origin of the periodic plane, so the origin sample lands there.
// A volume's kernel (depth > 1) is boxed and bordered along z as well.
PreparedKernel CentredKernel(std::span<const double> kernel, int width, int height, int depth = 1) {
  const double peak = *std::max_element(kernel.begin(), kernel.end());
  const int ox = width / 2, oy = height / 2, oz = depth / 2;
  auto at = [&](int x, int y, int z) {
    return kernel[(static_cast<size_t>(z) * height + y) * width + x];
  };
  int rx = 0, ry = 0, rz = 0;
  for (int z = 0; z < depth; ++z)
    for (int y = 0; y < height; ++y)
      for (int x = 0; x < width; ++x)
        if (at(x, y, z) > peak / 255.0) {
          rx = std::max(rx, std::abs(x - ox));
          ry = std::max(ry, std::abs(y - oy));
          rz = std::max(rz, std::abs(z - oz));
        }
  const int border = depth > 1 ? 1 : 0;
  PreparedKernel out;
  out.width = 2 * rx + 3;
  out.height = 2 * ry + 3;
  out.depth = 2 * rz + 1 + 2 * border;
  out.values.assign(static_cast<size_t>(out.width) * out.height * out.depth, 0.0);
  for (int z = std::max(0, oz - rz); z <= std::min(depth - 1, oz + rz); ++z)
    for (int y = std::max(0, oy - ry); y <= std::min(height - 1, oy + ry); ++y)
      for (int x = std::max(0, ox - rx); x <= std::min(width - 1, ox + rx); ++x)
        out.values[(static_cast<size_t>(z - oz + rz + border) * out.height + y - oy + ry + 1) *
                       out.width +
                   (x - ox + rx + 1)] = at(x, y, z);
  return out;
}

// Passes the engine's progress on to the caller at most every 10 ms (and at every change of
// phase), and turns a false answer into Cancelled.
class ProgressGate {
 public:
  explicit ProgressGate(const ProgressCallback& callback) : callback_(callback) {}

  void operator()(const char* phase, double fraction) {
    const auto now = std::chrono::steady_clock::now();
    if (phase == lastPhase_ && fraction < 1.0 && now - last_ < std::chrono::milliseconds(10))
      return;
    last_ = now;
    lastPhase_ = phase;
    if (!callback_(phase, std::clamp(fraction, 0.0, 1.0))) throw Cancelled();
  }

 private:
  const ProgressCallback& callback_;
  std::chrono::steady_clock::time_point last_{};
  std::string_view lastPhase_;
};

// The curve the options say the samples are encoded with.
LightCurve CurveOf(const DeconvolveOptions& options) {
  if (!options.toneCurve.empty()) return LightCurve::FromTable(options.toneCurve);
  return options.colorspace == Colorspace::kSrgb ? LightCurve::Srgb() : LightCurve::Linear();
}

// The mask's weights as planes of the image's size (one, or one per channel).
std::vector<double> ReadMask(const ConstImageView& mask, const ConstImageView& image) {
  CheckView(mask, "the mask");
  if (mask.width != image.width || mask.height != image.height ||
      (mask.channels != 1 && mask.channels != image.channels)) {
    throw Error("the mask (" + std::to_string(mask.width) + " x " + std::to_string(mask.height) +
                " x " + std::to_string(mask.channels) + ") must have the image's size (" +
                std::to_string(image.width) + " x " + std::to_string(image.height) + ") and 1 or " +
                std::to_string(image.channels) + " channels");
  }
  std::vector<double> weights = ReadPlanes(mask);
  if (std::any_of(weights.begin(), weights.end(), [](double w) { return w < 0.0 || w > 1.0; }))
    throw Error("the mask's weights must lie in [0, 1]");
  return weights;
}

// Weights of the data step. Samples at or above clipLevel were clipped: the light there was at
// least as bright, which the solver takes as a bound. The noise of the others, white in the
// stored values, becomes curve slope x noise in linear light, so each weighs
// (reference slope / own slope)^2, the reference being the median slope (the ratio held within
// 1/10 and 10, so that the flat ends of a curve neither vanish nor dominate), times the mask's
// weight. Returns the reference slope.
double SampleWeights(std::span<const double> encoded, const LightCurve& curve, double clipLevel,
                     std::span<const double> mask, size_t planeSize, std::span<float> weights) {
  std::vector<double> slopes;
  if (!curve.IsLinear()) {
    slopes.reserve(encoded.size() / 16 + 1);
    for (size_t i = 0; i < encoded.size(); i += 16) slopes.push_back(curve.Slope(encoded[i]));
    std::nth_element(slopes.begin(), slopes.begin() + slopes.size() / 2, slopes.end());
  }
  const double reference = slopes.empty() ? 1.0 : slopes[slopes.size() / 2];
  for (size_t i = 0; i < encoded.size(); ++i) {
    double w = 1.0;
    if (!curve.IsLinear()) {
      const double ratio = std::clamp(reference / curve.Slope(encoded[i]), 0.1, 10.0);
      w = ratio * ratio;
    }
    if (!mask.empty()) w *= mask[mask.size() == encoded.size() ? i : i % planeSize];
    weights[i] = static_cast<float>(w);
    if (encoded[i] >= clipLevel && w > 0.0) weights[i] = kLowerBoundSample;
  }
  return reference;
}

// The data step's penalty against lambda, and the data weight against the frequency solver's for
// the same noise strength, measured on the camera benchmark's training photographs
// (bench/camera_bench.py): a penalty of 3 lost 2.2 dB, half the weight gained 0.3 dB over the
// same weight. Non-negative results (the positivity split) cost 0.3 to 3.5 dB there: the split
// anchors the estimate to its last value, which the few rounds of an outer round then cannot
// move far enough, so photographs do without it.
constexpr double kDataPenalty = 1.0;
constexpr double kLightStrengthScale = 0.5;

// Photon counts: the positivity split's penalty (relative to lambda rho) and the strength against
// the Gaussian rule's for the same noise level, tuned on bench/microscopy_bench.py's tuning seeds.
// The counts' weights span orders of magnitude (the dark background's far above the specimen's),
// so ADMM needs its rounds: a fixed 40 at every penalty, none cut short by the change test,
// gained 2.6 dB on filaments and 3 dB on beads there over the Gaussian road's settings.
constexpr double kPoissonPositivity = 1.0;
constexpr double kPoissonStrengthScale = 0.02;
constexpr int kPoissonInnerRounds = 40;

// Sample units (those of an offset: 0 to 65535 for 16-bit samples) in one unit of the planes'
// [0, 1] scale.
double SampleUnits(SampleType type) {
  return type == SampleType::kUInt8 ? 255.0 : type == SampleType::kUInt16 ? 65535.0 : 1.0;
}

// The data's own full scale on the planes' scale: integer samples that never exceed 2^k - 1
// (12-bit data in a 16-bit file: 4095) came from a k-bit sensor (k >= 8); floating-point samples
// reach their largest value, or 1. The noise strength is calibrated on data that fill [0, 1].
double DataRange(std::span<const double> planes, SampleType type) {
  const double largest = *std::max_element(planes.begin(), planes.end());
  if (type == SampleType::kUInt8) return 1.0;
  if (type == SampleType::kUInt16) {
    const double top = std::round(largest * 65535.0);
    for (int bits = 8; bits < 16; ++bits) {
      const double full = std::ldexp(1.0, bits) - 1.0;
      if (top <= full) return full / 65535.0;
    }
    return 1.0;
  }
  return std::max(1.0, largest);
}

// Deconvolves in linear light with the split solver: the road of every request but the exact
// margins', which keep the frequency solver's output bit for bit. image describes the planes:
// its channels are a volume's slices when depth > 1. Fills the report's noise level, strength
// and offset. Linear samples are restored on the data's own range (DataRange), photon counts
// (NoiseModel::kPoisson) above the offset on the range of their largest count, non-negative.
SplitRunStats RunLightSolver(const ConstImageView& image, int depth, std::vector<double>& planes,
                             const PreparedKernel& kernel, const DeconvolveOptions& options,
                             DeconvolveReport& report, const RunProgress& progress) {
  const LightCurve curve = CurveOf(options);
  const bool poisson = options.noiseModel == NoiseModel::kPoisson;
  if (poisson && !curve.IsLinear())
    throw Error("photon counts (the Poisson noise model) need linear samples, not a tone curve");
  const size_t planeSize = static_cast<size_t>(image.width) * image.height;
  const bool integer = image.type == SampleType::kUInt8 || image.type == SampleType::kUInt16;
  double clipLevel = options.clipLevel.value_or(integer ? DataRange(planes, image.type)
                                                        : std::numeric_limits<double>::infinity());
  double offset = 0.0, range = 1.0;
  if (poisson) {
    offset = options.offset ? *options.offset / SampleUnits(image.type)
                            : EstimateOffset(planes, image.width, image.height, image.channels);
    report.offset = offset * SampleUnits(image.type);
    for (double& p : planes) p -= offset;
    range = *std::max_element(planes.begin(), planes.end());
    if (!(range > 0.0)) range = 1.0;
  } else if (curve.IsLinear()) {
    range = DataRange(planes, image.type);
  }
  if (offset != 0.0 || range != 1.0) {
    for (double& p : planes) p /= range;
    clipLevel = (clipLevel - offset) / range;
  }
  double strength = options.noise.value_or(0.0);
  if (!options.noise && !poisson) {
    report.noiseLevel =
        EstimateCompressedNoiseLevel(planes, image.width, image.height, image.channels);
    strength = NoiseStrengthForLevel(report.noiseLevel);
  }

  std::vector<double> mask;
  if (options.mask.data) mask = ReadMask(options.mask, image);
  std::vector<float> weights(planes.size());
  const double slope = SampleWeights(planes, curve, clipLevel, mask, planeSize, weights);
  curve.Linearise(planes, options.threads);
  const double clipped = curve.IsLinear() ? clipLevel : curve.ToLinear(std::min(clipLevel, 1.0));
  for (size_t i = 0; i < planes.size(); ++i)
    if (weights[i] == kLowerBoundSample) planes[i] = clipped;

  SplitRun run;
  run.planes = planes;
  run.width = image.width;
  run.height = image.height;
  run.channels = depth > 1 ? 1 : image.channels;
  run.depth = depth;
  run.weights = weights;
  run.kernel = &kernel;
  run.boundary = options.boundary;
  run.threads = options.threads;
  run.progress = progress;
  run.settings.zWeight = 1.0 / options.voxelAspect;
  if (poisson) {
    // Counts: the variance of a sample is (y + shift) / gain. The Gaussian rule's strength for
    // the noise level sigma0 of the light's typical sample (the counts' mean, each sample
    // weighed by its counts: the specimen, not the dark background), and the counts'
    // likelihood scaled so that a sample weighs sigma0^2 / its variance, as in the Gaussian
    // data term; samples of the specimen then weigh about 1 against the ADMM penalty.
    const PhotonModel model =
        EstimatePhotonModel(planes, image.width, image.height, image.channels);
    double sum = 0.0, squares = 0.0;
    for (size_t i = 0; i < planes.size(); ++i)
      if (weights[i] > 0.0f) {
        const double counts = std::max(planes[i], 0.0) + model.shift;
        sum += counts;
        squares += counts * counts;
      }
    const double meanCounts = sum > 0.0 ? squares / sum : 1.0;
    const double level = std::sqrt(meanCounts / model.gain);
    if (!options.noise) {
      report.noiseLevel = level;
      strength = kPoissonStrengthScale * NoiseStrengthForLevel(level);
    }
    run.settings.data = SplitSolveSettings::Data::kPoisson;
    run.settings.poissonScale = meanCounts;
    run.settings.poissonShift = model.shift;
    run.settings.positivity = kPoissonPositivity;
    run.settings.tolerance = 0.0;
    run.settings.maxInnerRounds = kPoissonInnerRounds;
  }
  report.noiseStrength = strength;
  // The strength is calibrated on stored values; in linear light the image and its noise are
  // scaled by the curve's slope, and the prior with them.
  run.settings.lambda = kLightStrengthScale * 100.0 / std::max(strength, 1e-9) / slope;
  run.settings.rho = kDataPenalty;
  const SplitRunStats stats = RunSplitSolver(run);
  curve.Encode(planes, options.threads);
  if (offset != 0.0 || range != 1.0)
    for (double& p : planes) p = (poisson ? std::max(p, 0.0) : p) * range + offset;
  return stats;
}

void CheckOptions(const DeconvolveOptions& options) {
  if (options.noise && !(std::isfinite(*options.noise) && *options.noise >= 0.0)) {
    throw Error("the noise strength must be a finite number of at least 0, not " +
                std::to_string(*options.noise));
  }
  if (options.threads < 0) {
    throw Error("the thread count must be 0 (every core) or more, not " +
                std::to_string(options.threads));
  }
  if (options.offset && !std::isfinite(*options.offset))
    throw Error("the offset must be a finite number");
  if (!(std::isfinite(options.voxelAspect) && options.voxelAspect > 0.0)) {
    throw Error("the voxel aspect must be a finite number above 0, not " +
                std::to_string(options.voxelAspect));
  }
}

}  // namespace

NoiseReport EstimateNoise(const ConstImageView& image) {
  CheckView(image, "the image");
  std::vector<double> planes = ReadPlanes(image);
  // The estimate of the default road, which reads compressed images too, on the data's range.
  const double range = DataRange(planes, image.type);
  for (double& p : planes) p /= range;
  const double level =
      EstimateCompressedNoiseLevel(planes, image.width, image.height, image.channels);
  return {level, NoiseStrengthForLevel(level)};
}

DeconvolveReport Deconvolve(const ConstImageView& image, const KernelView& kernel,
                            const ImageView& output, const DeconvolveOptions& options) {
  CheckView(image, "the image");
  CheckView(output, "the output");
  if (output.width != image.width || output.height != image.height ||
      output.channels != image.channels) {
    throw Error("the output (" + std::to_string(output.width) + " x " +
                std::to_string(output.height) + " x " + std::to_string(output.channels) +
                ") must have the image's size (" + std::to_string(image.width) + " x " +
                std::to_string(image.height) + " x " + std::to_string(image.channels) + ")");
  }
  CheckOptions(options);
  // Exact margins and kernel refinement run the frequency solver, whose data term weighs every
  // sample alike.
  if (options.mask.data && (options.margins == Margins::kExact || options.refineKernel))
    throw Error("a mask needs fast margins and no kernel refinement");
  if (options.noiseModel == NoiseModel::kPoisson &&
      (options.margins == Margins::kExact || options.refineKernel))
    throw Error(
        "photon counts (the Poisson noise model) need fast margins and no kernel refinement");
  std::vector<double> normalised = NormalisedKernel(kernel);
  std::vector<double> planes = ReadPlanes(image);

  DeconvolveReport report;
  report.noiseLevel = std::numeric_limits<double>::quiet_NaN();
  if (options.noise) {
    report.noiseStrength = *options.noise;
  } else if (options.margins == Margins::kExact || options.refineKernel) {
    const auto estimate = EstimateNoise(planes, image.width, image.height, image.channels);
    report.noiseLevel = estimate.level;
    report.noiseStrength = estimate.strength;
  }  // the light road estimates it on the data's own range

  PreparedKernel prepared = options.kernelOrigin == KernelOrigin::kSupport
                                ? PrepareKernel(normalised, kernel.width, kernel.height)
                                : CentredKernel(normalised, kernel.width, kernel.height);
  normalised = {};
  // The local prior's weight plane is zero on this road, so its weight changes nothing; the
  // command line's conventional 1 is passed.
  DeconvRequest request =
      MakeScaledRequest(planes.data(), planes.data(), image.width, image.height, image.channels,
                        prepared.values.data(), prepared.width, prepared.height,
                        report.noiseStrength, 1.0, options.boundary == Boundary::kSmooth ? 1 : 0);
  CheckRequest(request);

  SolverRunOptions run;
  run.margins = options.margins == Margins::kExact ? MarginSize::kExact : MarginSize::kFast;
  run.threads = options.threads;
  ProgressGate gate(options.progress);
  if (options.progress) run.progress = std::ref(gate);
  // The solver runs read every input plane before they write the output planes, so one set of
  // planes serves as both.
  if (options.refineKernel) {
    RunRefinedFrequencySolver(request, prepared.values, run);
  } else if (options.margins == Margins::kExact) {
    RunFrequencySolver(request, run);
  } else {
    const SplitRunStats stats =
        RunLightSolver(image, 1, planes, prepared, options, report, run.progress);
    report.innerRounds = stats.innerRounds;
    report.workingWidth = stats.working.width;
    report.workingHeight = stats.working.height;
  }
  WritePlanes(planes, output);
  if (options.progress) gate("done", 1.0);

  report.kernel = std::move(prepared.values);
  report.kernelWidth = prepared.width;
  report.kernelHeight = prepared.height;
  return report;
}

DeconvolveReport Deconvolve(const ConstVolumeView& volume, const VolumeKernelView& kernel,
                            const VolumeView& output, const DeconvolveOptions& options) {
  // The slices are the planes of an image view, one a channel.
  const ConstImageView slices{volume.data,      volume.type,       volume.width,
                              volume.height,    volume.depth,      volume.columnStride,
                              volume.rowStride, volume.sliceStride};
  const ImageView outSlices{output.data,      output.type,       output.width,
                            output.height,    output.depth,      output.columnStride,
                            output.rowStride, output.sliceStride};
  CheckView(slices, "the volume");
  CheckView(outSlices, "the output");
  if (output.width != volume.width || output.height != volume.height ||
      output.depth != volume.depth) {
    throw Error("the output (" + std::to_string(output.width) + " x " +
                std::to_string(output.height) + " x " + std::to_string(output.depth) +
                ") must have the volume's size (" + std::to_string(volume.width) + " x " +
                std::to_string(volume.height) + " x " + std::to_string(volume.depth) + ")");
  }
  CheckOptions(options);
  if (options.margins == Margins::kExact || options.refineKernel || options.mask.data ||
      options.colorspace != Colorspace::kLinear || !options.toneCurve.empty())
    throw Error(
        "a volume is restored with fast margins, linear samples, no mask and no kernel "
        "refinement");
  if (kernel.depth < 1)
    throw Error("the kernel has no slices (depth " + std::to_string(kernel.depth) + ")");
  if (!SizeWithin(kMaxRequestSamples, {kernel.width, kernel.height, kernel.depth}))
    throw Error("the kernel is too large");
  std::vector<double> normalised =
      NormalisedKernel({kernel.values, kernel.width, kernel.height * kernel.depth});
  PreparedKernel prepared = CentredKernel(normalised, kernel.width, kernel.height, kernel.depth);
  normalised = {};
  std::vector<double> planes = ReadPlanes(slices);

  DeconvolveReport report;
  report.noiseLevel = std::numeric_limits<double>::quiet_NaN();
  ProgressGate gate(options.progress);
  RunProgress progress;
  if (options.progress) progress = std::ref(gate);
  const SplitRunStats stats =
      RunLightSolver(slices, volume.depth, planes, prepared, options, report, progress);
  report.innerRounds = stats.innerRounds;
  report.workingWidth = stats.working.width;
  report.workingHeight = stats.working.height;
  WritePlanes(planes, outSlices);
  if (options.progress) gate("done", 1.0);
  report.kernel = std::move(prepared.values);
  report.kernelWidth = prepared.width;
  report.kernelHeight = prepared.height;
  report.kernelDepth = prepared.depth;
  return report;
}

}  // namespace marlith
