#include "engine/frequency_solver_run.h"

#include <algorithm>
#include <cassert>
#include <future>
#include <string>
#include <tuple>
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

// The even working size of a request, with its margins when boundaryType is non-zero.
std::pair<int, int> WorkingSize(const DeconvRequest& request, MarginSize margins) {
  int width = request.width + (request.width & 1), height = request.height + (request.height & 1);
  if (request.boundaryType != 0) {
    width += 2 * MarginFor(width, request.kernelWidth, margins);
    height += 2 * MarginFor(height, request.kernelHeight, margins);
  }
  return {width, height};
}

}  // namespace

SolverSetupAhead::SolverSetupAhead(const DeconvRequest& request, const SolverRunOptions& options)
    : kernel_(request.kernel,
              request.kernel + static_cast<size_t>(request.kernelWidth) * request.kernelHeight),
      kernelWidth_(request.kernelWidth),
      kernelHeight_(request.kernelHeight),
      localPriorWeight_(request.localPriorWeight),
      threads_(ResolveThreads(options.threads)) {
  std::tie(width_, height_) = WorkingSize(request, options.margins);
  solver_ = std::async(std::launch::async, [this] {
    return std::make_unique<ChannelSolver>(width_, height_, kernel_, kernelWidth_, kernelHeight_,
                                           localPriorWeight_, threads_);
  });
}

SolverSetupAhead::~SolverSetupAhead() {
  if (solver_.valid()) solver_.wait();
}

std::unique_ptr<ChannelSolver> SolverSetupAhead::Take(int width, int height,
                                                      std::span<const double> kernel,
                                                      int kernelWidth, int kernelHeight,
                                                      double localPriorWeight, int threads) {
  if (!solver_.valid()) return nullptr;
  const bool fits = width == width_ && height == height_ && kernelWidth == kernelWidth_ &&
                    kernelHeight == kernelHeight_ && localPriorWeight == localPriorWeight_ &&
                    threads == threads_ && std::ranges::equal(kernel, kernel_);
  try {
    std::unique_ptr<ChannelSolver> solver = solver_.get();
    return fits ? std::move(solver) : nullptr;
  } catch (const std::exception&) {
    return nullptr;
  }
}

int NextFastSize(int minimum) {
  for (int n = std::max(2, minimum + (minimum & 1));; n += 2) {
    int m = n;
    for (int p : {2, 3, 5, 7})
      while (m % p == 0) m /= p;
    if (m == 1) return n;
  }
}

namespace {

// The kernel (with its zero border) must fit the image: its size is also the width of the
// bands the border extension fits from.
void CheckKernelFits(const DeconvRequest& request) {
  if (request.kernelWidth > request.width || request.kernelHeight > request.height) {
    throw Error("the kernel (" + std::to_string(request.kernelWidth) + " x " +
                std::to_string(request.kernelHeight) +
                " after trimming and bordering) is larger than the image (" +
                std::to_string(request.width) + " x " + std::to_string(request.height) + ")");
  }
}

bool EvenSized(const DeconvRequest& request) {
  return request.width % 2 == 0 && request.height % 2 == 0;
}

}  // namespace

WorkingPlanes PrepareWorkingPlanes(const DeconvRequest& request, const SolverRunOptions& options) {
  const RunProgress& progress = options.progress;
  EvenSizeWork work = MakeEvenSizeWork(request);
  CheckKernelFits(request);
  // The margins are fitted from an even image where it lies; anything else is first copied
  // (and extended to even sizes).
  const bool copy = work.boundaryType == 0 || !EvenSized(request);
  if (copy) ExtendToEvenSize(work);
  WorkingPlanes out{std::move(work.planes), copy ? work.workWidth : work.width,
                    copy ? work.workHeight : work.height};
  if (work.boundaryType != 0) {
    if (progress) progress("margins", 0.0);
    // Margins of (at least) three kernel sizes on every side, fitted from bands one kernel
    // size wide.
    const int padX = MarginFor(out.width, work.marginWidth, options.margins);
    const int padY = MarginFor(out.height, work.marginHeight, options.margins);
    const auto extend = options.margins == MarginSize::kExact ? extendPeriodicBorderPlanes
                                                              : extendPeriodicBorderPlanesFast;
    out.planes =
        extend(copy ? std::span<const double>(out.planes) : work.input, work.channels, out.width,
               out.height, padX, padY, work.marginWidth, work.marginHeight, options.threads);
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
  // A periodic image of even size is solved where it lies, each channel's result written
  // straight to the output; anything else on working planes, cropped back at the end.
  const bool inPlace = request.boundaryType == 0 && EvenSized(request);
  WorkingPlanes work;
  if (inPlace) {
    CheckKernelFits(request);
    work.width = request.width;
    work.height = request.height;
  } else {
    work = PrepareWorkingPlanes(request, options);
  }
  const size_t planeSize = static_cast<size_t>(work.width) * work.height;
  const std::span<const double> kernel(
      request.kernel, static_cast<size_t>(request.kernelWidth) * request.kernelHeight);
  const int threads = ResolveThreads(options.threads);
  std::unique_ptr<ChannelSolver> solver;
  if (options.setupAhead) {
    solver = options.setupAhead->Take(work.width, work.height, kernel, request.kernelWidth,
                                      request.kernelHeight, request.localPriorWeight, threads);
  }
  if (!solver) {
    solver =
        std::make_unique<ChannelSolver>(work.width, work.height, kernel, request.kernelWidth,
                                        request.kernelHeight, request.localPriorWeight, threads);
  }
  const double start = SolveStart(request), share = (1.0 - start) / request.channels;
  // Each channel's result replaces its working plane, which the solve no longer needs (the
  // solver reads its input plane whole before it writes the result).
  for (int c = 0; c < request.channels; ++c) {
    if (options.progress) {
      const double from = start + share * c;
      solver->SetProgress([&options, from, share](double f) {
        options.progress("deconvolution", from + share * f);
      });
    }
    const std::span<double> plane =
        inPlace ? std::span<double>(request.output + c * planeSize, planeSize)
                : std::span<double>(work.planes.data() + c * planeSize, planeSize);
    solver->Solve(
        inPlace ? std::span<const double>(request.input + c * planeSize, planeSize) : plane, plane,
        1, request.noise);
  }
  if (!inPlace) Crop(work, request);
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
