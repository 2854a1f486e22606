#include "engine/engine_driver.h"

#include <algorithm>
#include <array>
#include <cmath>
#include <limits>
#include <string>

#include "engine/frequency_solver_run.h"
#include "image/size_check.h"
#include "marlith/error.hpp"
#include "plane/fftw_plan.h"
#include "plane/plane_padding.h"
#include "refine/kernel_refinement_pass.h"

namespace marlith {
namespace {

constexpr int kReferenceWidth = 19;
constexpr int kReferenceHeight = 7;
constexpr int kCorrectionWidth = 20;

// A known motion blur as it comes from a kernel image (0..255 scale, sum 3585).
constexpr std::array<double, kReferenceWidth* kReferenceHeight> kReferenceKernel = {
    0,  0,   0,   0,   0,   0,   0,   0,   0,   0,   0,   0,   0,   0,   0,   0,   0,   0,   23,
    0,  0,   0,   0,   0,   0,   0,   0,   0,   0,   0,   0,   0,   0,   0,   0,   18,  137, 27,
    0,  0,   0,   0,   0,   0,   0,   0,   0,   0,   0,   0,   0,   0,   23,  155, 123, 0,   0,
    0,  0,   0,   0,   0,   0,   0,   0,   0,   0,   0,   0,   59,  164, 159, 0,   0,   0,   0,
    0,  0,   0,   0,   0,   0,   0,   0,   0,   55,  164, 200, 155, 0,   0,   0,   0,   0,   0,
    51, 32,  0,   0,   73,  110, 178, 223, 218, 164, 59,  0,   0,   0,   0,   0,   0,   0,   0,
    0,  255, 237, 218, 182, 123, 0,   0,   0,   0,   0,   0,   0,   0,   0,   0,   0,   0,   0,
};

// The better-fitting kernel for that blur, 20 x 7 (sum 1.0002).
constexpr std::array<double, kCorrectionWidth* kReferenceHeight> kCorrectionKernel = {
    0,      0,      0,      0,      0,      0,      0,      0,      0,      0,      0,      0,
    0,      0,      0,      0,      0,      0,      0,      0.0057, 0,      0,      0,      0,
    0,      0,      0,      0,      0,      0,      0,      0,      0,      0,      0,      0,
    0,      0.0044, 0.0335, 0.0067, 0,      0,      0,      0,      0,      0,      0,      0,
    0,      0,      0,      0,      0,      0,      0,      0.0057, 0.0379, 0.0301, 0,      0,
    0,      0,      0,      0,      0,      0,      0,      0,      0,      0,      0,      0,
    0,      0.0144, 0.0402, 0.0389, 0.001,  0,      0,      0,      0,      0,      0,      0,
    0,      0,      0,      0,      0,      0,      0.0134, 0.0402, 0.0489, 0.0379, 0,      0,
    0,      0,      0,      0,      0,      0.0124, 0.0077, 0.0077, 0.0111, 0.0178, 0.0268, 0.0435,
    0.0546, 0.0533, 0.0402, 0.0144, 0,      0,      0,      0,      0,      0,      0,      0,
    0.0245, 0.0657, 0.0623, 0.0579, 0.0533, 0.0446, 0.0301, 0.0134, 0,      0,      0,      0,
    0,      0,      0,      0,      0,      0,      0,      0,
};

// Applies the reference test to a 19 x 7 kernel in place and returns it as 20 x 7.
void ApplyReferenceCorrection(CroppedKernel& kernel) {
  constexpr size_t kCount = kReferenceWidth * kReferenceHeight;
  double sumIn = 0.0, sumRef = 0.0;
  for (size_t i = 0; i < kCount; ++i) {
    sumIn += kernel.values[i];
    sumRef += kReferenceKernel[i];
  }
  const double r = sumRef / sumIn;
  double distance = 0.0;
  for (size_t i = 0; i < kCount; ++i) {
    kernel.values[i] *= r;
    distance += std::fabs(kernel.values[i] - kReferenceKernel[i]);
  }
  if (distance < 3.0) {
    kernel.values = PadCenteredDown(std::move(kernel.values), kReferenceWidth, kReferenceHeight,
                                    kCorrectionWidth, kReferenceHeight);
    for (size_t i = 0; i < kernel.values.size(); ++i) {
      kernel.values[i] += 2.0 * r * kCorrectionKernel[i];
    }
  } else {
    // Without a blend the 133 values are read on as 7 rows of 20; the 7 values that reading
    // needs past the end of the 19 x 7 kernel are zero.
    kernel.values.resize(kCorrectionWidth * kReferenceHeight, 0.0);
  }
  // Only the first 133 values are normalised: after a blend the last 7 (row 6, columns 13 to
  // 19) keep their value on the 0..255 scale. This quirk of the correction is deliberate.
  double sum = 0.0;
  for (size_t i = 0; i < kCount; ++i) sum += kernel.values[i];
  for (size_t i = 0; i < kCount; ++i) kernel.values[i] /= sum;
  kernel.width = kCorrectionWidth;
  kernel.height = kReferenceHeight;
}

}  // namespace

void CheckRequest(const DeconvRequest& request) {
  if (!request.input || !request.output || !request.kernel) {
    throw Error("the request lacks its input, output or kernel array");
  }
  auto positive = [](const char* what, int32_t value) {
    if (value < 1)
      throw Error(std::string(what) + " must be at least 1, not " + std::to_string(value));
  };
  // Infinite or undefined settings would turn every sample into NaN or skip the solve
  // silently; they are refused instead.
  if (!std::isfinite(request.noise)) {
    throw Error("the noise strength (over 2000) must be a finite number, not " +
                std::to_string(request.noise));
  }
  if (!std::isfinite(request.localPriorWeight)) {
    throw Error("the local prior weight (times 20) must be a finite number, not " +
                std::to_string(request.localPriorWeight));
  }
  positive("image width", request.width);
  positive("image height", request.height);
  positive("channel count", request.channels);
  positive("kernel width", request.kernelWidth);
  positive("kernel height", request.kernelHeight);
  // Every buffer the engine makes is a few times the request's planes, bordered: keep the
  // element counts far from size_t's limit and the sizes (grown by margins) inside int.
  constexpr int64_t kMaxSide = 1 << 20;
  if (request.width > kMaxSide || request.height > kMaxSide ||
      !SizeWithin(kMaxRequestSamples, {request.width, request.height, request.channels}) ||
      request.kernelWidth > kMaxSide || request.kernelHeight > kMaxSide ||
      !SizeWithin(kMaxRequestSamples, {request.kernelWidth, request.kernelHeight})) {
    throw Error("image of " + std::to_string(request.width) + " x " +
                std::to_string(request.height) + " x " + std::to_string(request.channels) +
                " with a kernel of " + std::to_string(request.kernelWidth) + " x " +
                std::to_string(request.kernelHeight) + " is too large");
  }
}

void CheckFiniteSamples(std::span<const double> planes, int32_t width, int32_t height,
                        const std::string& what) {
  const auto bad =
      std::find_if(planes.begin(), planes.end(), [](double s) { return !std::isfinite(s); });
  if (bad == planes.end()) return;
  const size_t i = static_cast<size_t>(bad - planes.begin());
  const size_t planeSize = static_cast<size_t>(width) * height;
  throw Error(what + " holds a sample that is not a finite number (channel " +
              std::to_string(i / planeSize) + ", row " + std::to_string(i % planeSize / width) +
              ", column " + std::to_string(i % width) + ")");
}

std::vector<double> NewImagePlanes(size_t count) { return NewPlane(count); }

DeconvRequest MakeScaledRequest(const double* input, double* output, int32_t width, int32_t height,
                                int32_t channels, const double* kernel, int32_t kernelWidth,
                                int32_t kernelHeight, double noiseStrength, double localPriorWeight,
                                int32_t boundaryType) {
  DeconvRequest request{};
  request.input = input;
  request.output = output;
  request.kernel = kernel;
  request.width = width;
  request.height = height;
  request.channels = channels;
  request.kernelWidth = kernelWidth;
  request.kernelHeight = kernelHeight;
  request.noise = noiseStrength / 2000.0;
  request.localPriorWeight = localPriorWeight * 20.0;
  request.boundaryType = boundaryType;
  return request;
}

PreparedKernel PrepareKernel(std::span<const double> kernel, int width, int height) {
  const size_t count = static_cast<size_t>(width) * height;
  double maximum = 0.0;
  for (double v : kernel.first(count)) {
    if (!std::isfinite(v)) {
      throw Error(
          "the kernel holds a value that is not a finite number (an all-black kernel image gives "
          "one)");
    }
    maximum = std::max(maximum, v);
  }
  if (!(maximum > 0.0))
    throw Error("the kernel has no positive value (an all-black kernel image?)");

  CroppedKernel cropped = CropKernelToSupport(kernel, width, height);
  if (cropped.width == kReferenceWidth && cropped.height == kReferenceHeight) {
    ApplyReferenceCorrection(cropped);
  }
  PreparedKernel prepared;
  prepared.width = cropped.width + 2;
  prepared.height = cropped.height + 2;
  prepared.values = PadCenteredUp(std::move(cropped.values), cropped.width, cropped.height,
                                  prepared.width, prepared.height);
  return prepared;
}

namespace {

// The request's kernel as the solvers receive it, and the request that carries it.
PreparedKernel PrepareRequestKernel(const DeconvRequest& request) {
  return PrepareKernel(
      std::span<const double>(request.kernel,
                              static_cast<size_t>(request.kernelWidth) * request.kernelHeight),
      request.kernelWidth, request.kernelHeight);
}

DeconvRequest SolverRequest(const DeconvRequest& request, const PreparedKernel& kernel) {
  DeconvRequest solverRequest = request;
  solverRequest.kernel = kernel.values.data();
  solverRequest.kernelWidth = kernel.width;
  solverRequest.kernelHeight = kernel.height;
  return solverRequest;
}

}  // namespace

std::unique_ptr<SolverSetupAhead> StartSolverSetupAhead(const DeconvRequest& request) {
  try {
    const PreparedKernel kernel = PrepareRequestKernel(request);
    return std::make_unique<SolverSetupAhead>(SolverRequest(request, kernel), SolverRunOptions{});
  } catch (const std::exception&) {
    return nullptr;
  }
}

int32_t RunDeconvEngine(const DeconvRequest& request, int32_t variant, PreparedKernel* usedKernel,
                        SolverSetupAhead* setupAhead) {
  CheckRequest(request);
  PreparedKernel kernel = PrepareRequestKernel(request);
  const DeconvRequest solverRequest = SolverRequest(request, kernel);
  SolverRunOptions options;
  options.setupAhead = setupAhead;
  switch (variant) {
    case kFrequencySolverVariant:
      RunFrequencySolver(solverRequest, options);
      break;
    case kKernelRefinementVariant:
      RunKernelRefinementPass(solverRequest, kernel.values);
      break;
    default:
      break;
  }
  if (usedKernel) *usedKernel = std::move(kernel);
  return 0;
}

}  // namespace marlith
