// The engine's second variant: deconvolve, re-fit the kernel from the result, clean it, and
// deconvolve again.
#pragma once

#include <cstdint>
#include <functional>
#include <span>
#include <vector>

#include "marlith/deconv_request.h"

namespace marlith {

struct RefinementSettings {
  double noise = 0.0;  // already scaled (user value / 2000)
  int threads = 1;
  // false: the second solve keeps the spectra of the kernel as given (the refined kernel only
  // reaches the caller); true: the second solve deconvolves with the refined kernel.
  bool solveWithRefinedKernel = false;
  // Receives the fraction of the pass done, in [0, 1]; may throw to cancel.
  std::function<void(double)> progress;
};

// Deconvolves channels working planes (channels x height x width, even sizes, margins already
// added) twice, first with four times the noise, then with the noise itself, and re-fits the
// kernel (kernelWidth x kernelHeight, overwritten with the cleaned refined kernel) in between.
// Returns the second solve's planes at the working size.
std::vector<double> RefineKernelAndSolve(std::span<const double> workPlanes, int width, int height,
                                         int channels, std::span<double> kernel, int kernelWidth,
                                         int kernelHeight, const RefinementSettings& settings);

// The request's variant: planes extended to even sizes only, one thread, the second solve with
// the kernel as given. request.kernel must point at kernel (kernelWidth x kernelHeight), which
// receives the refined kernel. Writes request.output; returns 0.
int32_t RunKernelRefinementPass(const DeconvRequest& request, std::span<double> kernel);

// Keeps the entries strictly above 10 % of the kernel's maximum (the maximum starting at 0),
// zeroes the rest, and divides by the sum of what is left.
void CleanKernel(std::span<double> kernel);

}  // namespace marlith
