// The engine's first solver variant: every channel deblurred in the frequency domain with one
// solver object.
#pragma once

#include <functional>
#include <future>
#include <memory>
#include <span>
#include <vector>

#include "marlith/deconv_request.h"

namespace marlith {

class ChannelSolver;
class SolverSetupAhead;

// How wide the smooth periodic margins are and how they are fitted.
enum class MarginSize {
  kExact,  // three kernel sizes on every side: the command line's working size and fit
  kFast,   // at least that, widened so that the working width and height factor into 2, 3, 5
           // and 7 only, where the transforms are fastest, and fitted directly
           // (extendPeriodicBorderPlanesFast)
};

// The planes a solve works on: every channel at the working size.
struct WorkingPlanes {
  std::vector<double> planes;  // channels x height x width
  int width = 0;
  int height = 0;
};

// Reports the phase running ("margins", "deconvolution", "kernel refinement") and the fraction
// of the whole run done, in [0, 1]. It may throw to cancel the run; everything is released.
using RunProgress = std::function<void(const char* phase, double fraction)>;

struct SolverRunOptions {
  MarginSize margins = MarginSize::kExact;
  int threads = 0;  // threads for each transform and pass over the planes; 0: every core
  RunProgress progress;
  // A solver set up beforehand, which RunFrequencySolver takes when it fits the run.
  SolverSetupAhead* setupAhead = nullptr;
};

// The solver of a RunFrequencySolver call set up on a thread of its own while the caller does
// other work, such as reading the image: started from the request's sizes, (prepared) kernel and
// weight alone (its planes may be null, its channel count and noise do not matter) and the
// options' margins and threads.
class SolverSetupAhead {
 public:
  SolverSetupAhead(const DeconvRequest& request, const SolverRunOptions& options);
  ~SolverSetupAhead();  // waits for the set-up to end
  SolverSetupAhead(const SolverSetupAhead&) = delete;
  SolverSetupAhead& operator=(const SolverSetupAhead&) = delete;

  // The solver, once its set-up has ended, when it was set up for this working size, kernel,
  // weight and threads; null otherwise, or when the set-up failed (the caller then sets up its
  // own, and meets the failure itself). A second call returns null.
  std::unique_ptr<ChannelSolver> Take(int width, int height, std::span<const double> kernel,
                                      int kernelWidth, int kernelHeight, double localPriorWeight,
                                      int threads);

 private:
  int width_, height_;
  std::vector<double> kernel_;
  int kernelWidth_, kernelHeight_;
  double localPriorWeight_;
  int threads_;
  std::future<std::unique_ptr<ChannelSolver>> solver_;
};

// The request's planes extended to even sizes (last column and row repeated) and, for a
// non-zero boundaryType, given smooth periodic margins (three kernel sizes on every side, or
// more with options.margins = MarginSize::kFast). Throws marlith::Error when the kernel is
// larger than the image.
WorkingPlanes PrepareWorkingPlanes(const DeconvRequest& request,
                                   const SolverRunOptions& options = {});

// Deconvolves request.channels planes of request.width x request.height with the request's
// (prepared) kernel and writes the result into request.output. The planes are solved at even
// working sizes, with smooth periodic border margins when boundaryType is non-zero, and cropped
// back centred. Returns 0; throws marlith::Error when the request cannot be solved.
int RunFrequencySolver(const DeconvRequest& request, const SolverRunOptions& options = {});

// As RunFrequencySolver, but the kernel is re-fitted from a first solve with four times the
// noise, cleaned, and the second solve deconvolves with it. kernel is request.kernel's array
// (kernelWidth x kernelHeight) and receives the refined kernel. Returns 0.
int RunRefinedFrequencySolver(const DeconvRequest& request, std::span<double> kernel,
                              const SolverRunOptions& options = {});

// The smallest even size of at least minimum whose only prime factors are 2, 3, 5 and 7.
int NextFastSize(int minimum);

}  // namespace marlith
