#include "engine/frequency_solver_run.h"

#include <algorithm>
#include <cassert>
#include <string>
#include <vector>

#include "fit/border_extension.h"
#include "marlith/error.hpp"
#include "plane/channel_solve.h"
#include "plane/plane_padding.h"
#include "plane/worker_pool.h"
#include "refine/kernel_refinement_pass.h"

namespace marlith {
namespace {

// The margin on each side of a working side of size n for a kernel of size k.
int MarginFor(int n, int k, MarginSize margins) {
  const int exact = 3 * k;
  if (margins == MarginSize::kExact) return exact;
  // n is even, so an even fast size leaves the same margin on both sides.
  return (NextFastSize(n + 2 * exact) - n) / 2;
}

// Share of the run's progress the margins take when there are any.
constexpr double kMarginShare = 0.1;

}  // namespace

int NextFastSize(int minimum) {
  for (int n = std::max(2, minimum + (minimum & 1));; n += 2) {
    int m = n;
    for (int p : {2, 3, 5, 7})
      while (m % p == 0) m /= p;
    if (m == 1) return n;
  }
}

WorkingPlanes PrepareWorkingPlanes(const DeconvRequest& request, const SolverRunOptions& options) {
  const RunProgress& progress = options.progress;
  EvenSizeWork work = MakeEvenSizeWork(request);
  // The kernel (with its zero border) must fit the image: its size is also the width of the
  // bands the border extension fits from.
  if (request.kernelWidth > request.width || request.kernelHeight > request.height) {
    throw Error("the kernel (" + std::to_string(request.kernelWidth) + " x " +
                std::to_string(request.kernelHeight) +
                " after trimming and bordering) is larger than the image (" +
                std::to_string(request.width) + " x " + std::to_string(request.height) + ")");
  }
  ExtendToEvenSize(work);
  WorkingPlanes out{std::move(work.planes), work.workWidth, work.workHeight};
  if (work.boundaryType != 0) {
    if (progress) progress("margins", 0.0);
    // Margins of (at least) three kernel sizes on every side, fitted from bands one kernel
    // size wide.
    const int padX = MarginFor(out.width, work.marginWidth, options.margins);
    const int padY = MarginFor(out.height, work.marginHeight, options.margins);
    const auto extend = options.margins == MarginSize::kExact ? extendPeriodicBorderPlanes
                                                              : extendPeriodicBorderPlanesFast;
    out.planes = extend(out.planes, work.channels, out.width, out.height, padX, padY,
                        work.marginWidth, work.marginHeight, options.threads);
    out.width += 2 * padX;
    out.height += 2 * padY;
    if (progress) progress("margins", kMarginShare);
  }
  return out;
}

namespace {

// The fraction of the run at which the solves start.
double SolveStart(const DeconvRequest& request) {
  return request.boundaryType != 0 ? kMarginShare : 0.0;
}

void Crop(const WorkingPlanes& work, const DeconvRequest& request) {
  CropCenteredBack(work.planes, work.width, work.height, request.width, request.height,
                   request.channels,
                   std::span<double>(request.output, static_cast<size_t>(request.width) *
                                                         request.height * request.channels));
}

}  // namespace

int RunFrequencySolver(const DeconvRequest& request, const SolverRunOptions& options) {
  WorkingPlanes work = PrepareWorkingPlanes(request, options);
  const size_t planeSize = static_cast<size_t>(work.width) * work.height;
  ChannelSolver solver(
      work.width, work.height,
      std::span<const double>(request.kernel,
                              static_cast<size_t>(request.kernelWidth) * request.kernelHeight),
      request.kernelWidth, request.kernelHeight, request.localPriorWeight,
      ResolveThreads(options.threads));
  const double start = SolveStart(request), share = (1.0 - start) / request.channels;
  // Each channel's result replaces its working plane, which the solve no longer needs.
  for (int c = 0; c < request.channels; ++c) {
    if (options.progress) {
      const double from = start + share * c;
      solver.SetProgress([&options, from, share](double f) {
        options.progress("deconvolution", from + share * f);
      });
    }
    const std::span<double> plane(work.planes.data() + c * planeSize, planeSize);
    solver.Solve(plane, plane, 1, request.noise);
  }
  Crop(work, request);
  return 0;
}

int RunRefinedFrequencySolver(const DeconvRequest& request, std::span<double> kernel,
                              const SolverRunOptions& options) {
  assert(request.kernel == kernel.data());
  WorkingPlanes work = PrepareWorkingPlanes(request, options);
  RefinementSettings settings;
  settings.noise = request.noise;
  settings.threads = ResolveThreads(options.threads);
  settings.solveWithRefinedKernel = true;
  if (options.progress) {
    const double start = SolveStart(request);
    settings.progress = [&options, start](double f) {
      options.progress("kernel refinement", start + (1.0 - start) * f);
    };
  }
  work.planes = RefineKernelAndSolve(work.planes, work.width, work.height, request.channels, kernel,
                                     request.kernelWidth, request.kernelHeight, settings);
  Crop(work, request);
  return 0;
}

}  // namespace marlith
