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
#include "engine/noise_estimate.h"
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

}  // namespace

NoiseReport EstimateNoise(const ConstImageView& image) {
  CheckView(image, "the image");
  const std::vector<double> planes = ReadPlanes(image);
  const auto estimate = EstimateNoise(planes, image.width, image.height, image.channels);
  return {estimate.level, estimate.strength};
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
  } else {
    const auto estimate = EstimateNoise(planes, image.width, image.height, image.channels);
    report.noiseLevel = estimate.level;
    report.noiseStrength = estimate.strength;
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
  } else {
    RunFrequencySolver(request, run);
  }
  WritePlanes(planes, output);
  if (options.progress) gate("done", 1.0);

  report.kernel = std::move(prepared.values);
  report.kernelWidth = prepared.width;
  report.kernelHeight = prepared.height;
  return report;
}

}  // namespace marlith
