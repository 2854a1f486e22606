// The engine's second variant: deconvolve, re-fit the kernel from the result, clean it, and
// deconvolve again.
#pragma once

#include <cstdint>
#include <span>

#include "marlith/deconv_request.h"

namespace marlith {

// Deconvolves request's planes twice with the frequency-domain solver (first with four times
// the noise, then with the request's own) and re-fits the kernel in between. request.kernel
// must point at kernel (kernelWidth x kernelHeight), which receives the refined kernel; the
// second pass still deconvolves with the spectra of the kernel as given. Writes
// request.output; returns 0.
int32_t RunKernelRefinementPass(const DeconvRequest& request, std::span<double> kernel);

// Keeps the entries strictly above 10 % of the kernel's maximum (the maximum starting at 0),
// zeroes the rest, and divides by the sum of what is left.
void CleanKernel(std::span<double> kernel);

}  // namespace marlith
