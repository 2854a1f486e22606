// The C entry point for use as a library.
#include <algorithm>
#include <cmath>
#include <cstdio>
#include <exception>
#include <new>

#include "engine/engine_driver.h"
#include "marlith/deconv_request.h"
#include "marlith/error.hpp"
#include "marlith/marlith.h"

extern "C" int32_t marlithDeconvolve(const double* inputData, double* outputData, int32_t width,
                                     int32_t height, int32_t channels, const double* kernelData,
                                     int32_t kernelWidth, int32_t kernelHeight, double noise,
                                     double localPriorWeight, int32_t boundaryType) {
  if (!inputData) {
    std::printf("inputData cannot be NULL.\n");
    return -1;
  }
  if (!outputData) {
    std::printf("outputData cannot be NULL.\n");
    return -1;
  }
  if (!kernelData) {
    std::printf("kernelData cannot be NULL.\n");
    return -1;
  }
  const DeconvRequest request =
      marlith::MakeScaledRequest(inputData, outputData, width, height, channels, kernelData,
                                 kernelWidth, kernelHeight, noise, localPriorWeight, boundaryType);
  // Nothing may escape a C entry point: every failure becomes one line and -1.
  try {
    marlith::CheckRequest(request);
    const size_t count = static_cast<size_t>(width) * height * channels;
    // A sample that is not a finite number turns the whole result into NaN: refused by place.
    marlith::CheckFiniteSamples({inputData, count}, width, height, "the image");
    marlith::RunDeconvEngine(request, marlith::kFrequencySolverVariant);
    // Finite samples too large for the computation (1e300) overflow it: refused as well rather
    // than returned as a result of NaN.
    if (!std::all_of(outputData, outputData + count, [](double v) { return std::isfinite(v); }))
      throw marlith::Error(
          "the image's samples are too large to restore (the computation overflowed); they "
          "belong on the [0, 1] scale");
    return 0;
  } catch (const marlith::Error& e) {
    std::printf("marlithDeconvolve: %s\n", e.what());
  } catch (const std::bad_alloc&) {
    std::printf("marlithDeconvolve: not enough memory\n");
  } catch (const std::exception& e) {
    std::printf("marlithDeconvolve: %s\n", e.what());
  }
  return -1;
}
