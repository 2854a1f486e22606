// The road of a request through the split solver: the working size and its margins, the
// weights of the samples there, one solve per channel, the result cropped back.
#pragma once

#include <span>

#include "engine/engine_driver.h"
#include "engine/frequency_solver_run.h"
#include "marlith/deconvolve.hpp"
#include "plane/split_deconv_solver.h"

namespace marlith {

struct SplitRun {
  // channels x depth x height x width samples (linear light): in, the observed image; out, the
  // result.
  std::span<double> planes;
  int width = 0, height = 0, channels = 0;
  // Slices of a volume (restored in 3-D with a kernel of kernel->depth slices); 1 for images.
  int depth = 1;
  // The data step's weight of every sample (>= 0, or a bound code), laid out as planes; or one
  // plane for every channel; empty: every sample weighs 1.
  std::span<const float> weights;
  // The kernel, its origin at sample (width / 2, height / 2, depth / 2).
  const PreparedKernel* kernel = nullptr;
  // kPeriodic: solved at the image's own size. kSmooth: smooth periodic margins, observed as
  // the image is. kUnknown: margins as wide as the kernel reaches, not observed. Along z (depth
  // > 1) the margins are unknown but for kPeriodic.
  Boundary boundary = Boundary::kUnknown;
  SplitSolveSettings settings;
  int threads = 0;
  RunProgress progress;
};

struct SplitRunStats {
  int innerRounds = 0;  // over all channels
  VolumeSize working;   // the working plane
};

// Restores run.planes in place. Throws marlith::Error when the kernel is larger than the image.
SplitRunStats RunSplitSolver(const SplitRun& run);

}  // namespace marlith
