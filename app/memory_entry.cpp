// The C entry point for use as a library.
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
    marlith::RunDeconvEngine(request, marlith::kFrequencySolverVariant);
    return 0;
  } catch (const marlith::Error& e) {
    std::printf("marlithDeconvolve: %s\n", e.what());
  } catch (const std::bad_alloc&) {
    std::printf("marlithDeconvolve: out of memory\n");
  } catch (const std::exception& e) {
    std::printf("marlithDeconvolve: %s\n", e.what());
  }
  return -1;
}
