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
PreparedKernel CentredKernel(std::span<const double> kernel, int width, int height) {
  const double peak = *std::max_element(kernel.begin(), kernel.end());
  const int ox = width / 2, oy = height / 2;
  int rx = 0, ry = 0;
  for (int y = 0; y < height; ++y)
    for (int x = 0; x < width; ++x)
      if (kernel[static_cast<size_t>(y) * width + x] > peak / 255.0) {
        rx = std::max(rx, std::abs(x - ox));
        ry = std::max(ry, std::abs(y - oy));
      }
  PreparedKernel out;
  out.width = 2 * rx + 3;
  out.height = 2 * ry + 3;
  out.values.assign(static_cast<size_t>(out.width) * out.height, 0.0);
  for (int y = std::max(0, oy - ry); y <= std::min(height - 1, oy + ry); ++y)
    for (int x = std::max(0, ox - rx); x <= std::min(width - 1, ox + rx); ++x)
      out.values[static_cast<size_t>(y - oy + ry + 1) * out.width + (x - ox + rx + 1)] =
          kernel[static_cast<size_t>(y) * width + x];
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

// Deconvolves in linear light with the split solver: the road of every request but the exact
// margins', which keep the frequency solver's output bit for bit.
SplitRunStats RunLightSolver(const ConstImageView& image, std::vector<double>& planes,
                             const PreparedKernel& kernel, const DeconvolveOptions& options,
                             double strength, const RunProgress& progress) {
  const LightCurve curve = CurveOf(options);
  const size_t planeSize = static_cast<size_t>(image.width) * image.height;
  const bool integer = image.type == SampleType::kUInt8 || image.type == SampleType::kUInt16;
  const double clipLevel =
      options.clipLevel.value_or(integer ? 1.0 : std::numeric_limits<double>::infinity());
  std::vector<double> mask;
  if (options.mask.data) mask = ReadMask(options.mask, image);
  std::vector<float> weights(planes.size());
  const double slope = SampleWeights(planes, curve, clipLevel, mask, planeSize, weights);
  curve.Linearise(planes, options.threads);
  for (size_t i = 0; i < planes.size(); ++i)
    if (weights[i] == kLowerBoundSample) planes[i] = curve.ToLinear(std::min(clipLevel, 1.0));

  SplitRun run;
  run.planes = planes;
  run.width = image.width;
  run.height = image.height;
  run.channels = image.channels;
  run.weights = weights;
  run.kernel = &kernel;
  run.boundary = options.boundary;
  run.threads = options.threads;
  run.progress = progress;
  // The strength is calibrated on stored values; in linear light the image and its noise are
  // scaled by the curve's slope, and the prior with them.
  run.settings.lambda = kLightStrengthScale * 100.0 / std::max(strength, 1e-9) / slope;
  run.settings.rho = kDataPenalty;
  const SplitRunStats stats = RunSplitSolver(run);
  curve.Encode(planes, options.threads);
  return stats;
}

}  // namespace

NoiseReport EstimateNoise(const ConstImageView& image) {
  CheckView(image, "the image");
  const std::vector<double> planes = ReadPlanes(image);
  // The estimate of the default road, which reads compressed images too.
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
  if (options.noise && !(std::isfinite(*options.noise) && *options.noise >= 0.0)) {
    throw Error("the noise strength must be a finite number of at least 0, not " +
                std::to_string(*options.noise));
  }
  if (options.threads < 0) {
    throw Error("the thread count must be 0 (every core) or more, not " +
                std::to_string(options.threads));
  }
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
  } else {
    report.noiseLevel =
        EstimateCompressedNoiseLevel(planes, image.width, image.height, image.channels);
    report.noiseStrength = NoiseStrengthForLevel(report.noiseLevel);
  }

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
        RunLightSolver(image, planes, prepared, options, report.noiseStrength, run.progress);
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

}  // namespace marlith
