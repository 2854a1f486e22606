// The single door into the deconvolution engine.
#pragma once

#include <cstdint>
#include <span>
#include <string>
#include <vector>

#include "engine/frequency_solver_run.h"
#include "marlith/deconv_request.h"

namespace marlith {

// Engine variants.
enum EngineVariant : int32_t {
  kFrequencySolverVariant = 1,   // deconvolve every channel with the given kernel
  kKernelRefinementVariant = 2,  // deconvolve twice, re-fitting the kernel in between
};

// A kernel as the solvers receive it: trimmed, corrected when recognised, zero-bordered.
struct PreparedKernel {
  std::vector<double> values;
  int width = 0;
  int height = 0;
  int depth = 1;  // slices of a volume's kernel, one after another
};

// Trims the kernel to its support, blends in the stored correction when it matches the
// reference kernel, and surrounds it with a one-sample zero border. Throws marlith::Error for a
// kernel that holds a value that is not finite or has no positive value.
PreparedKernel PrepareKernel(std::span<const double> kernel, int width, int height);

// A request for planes the caller owns, with the user's numbers scaled as the engine takes
// them: noise strength / 2000, local prior weight x 20.
DeconvRequest MakeScaledRequest(const double* input, double* output, int32_t width, int32_t height,
                                int32_t channels, const double* kernel, int32_t kernelWidth,
                                int32_t kernelHeight, double noiseStrength, double localPriorWeight,
                                int32_t boundaryType);

// Most samples of one request (width x height x channels), and of its kernel.
inline constexpr int64_t kMaxRequestSamples = int64_t{1} << 32;

// Throws marlith::Error naming the fault when the request lacks an array, has a size below 1,
// sizes too large to hold (checked with SizeWithin, image/size_check.h), or a noise or weight
// that is not finite.
void CheckRequest(const DeconvRequest& request);

// Throws marlith::Error naming the first sample of planes (channels of width x height) that is
// not a finite number, by channel, row and column; what names the planes ("the image").
void CheckFiniteSamples(std::span<const double> planes, int32_t width, int32_t height,
                        const std::string& what);

// count zeros for a caller's image planes on huge pages: the plane layer's NewPlane, for the
// doors, which do not use that layer (first touches of fresh memory are a large part of a
// short run).
std::vector<double> NewImagePlanes(size_t count);

// Checks the request's sizes and pointers (throws marlith::Error naming the fault), prepares
// its kernel and runs the chosen variant on a private copy; the solver writes request.output.
// Any other variant runs no solver and leaves the output planes as they are. When usedKernel is
// given it receives the kernel as the variant left it: prepared, and for variant 2 refined.
// Variant 1 takes setupAhead's solver when it was set up for this request. Returns 0.
int32_t RunDeconvEngine(const DeconvRequest& request, int32_t variant,
                        PreparedKernel* usedKernel = nullptr,
                        SolverSetupAhead* setupAhead = nullptr);

// Starts setting up, on a thread of its own, the solver that RunDeconvEngine(request, 1) will
// take: request's planes are not read (they may be null), only its sizes, kernel and settings.
// Null when the kernel is refused (RunDeconvEngine then reports it).
std::unique_ptr<SolverSetupAhead> StartSolverSetupAhead(const DeconvRequest& request);

}  // namespace marlith
