#include "engine/split_solver_run.h"

#include <algorithm>
#include <string>
#include <vector>

#include "fit/border_extension.h"
#include "marlith/error.hpp"
#include "plane/worker_pool.h"

namespace marlith {

namespace {

// Share of the run's progress the margins take.
constexpr double kMarginShare = 0.05;

struct Working {
  std::vector<double> planes;  // channels x size
  std::vector<float> weights;  // channels x size
  VolumeSize size;
  int offsetX = 0, offsetY = 0;  // where the image's sample (0, 0) lies
};

// Fills the samples of a plane that no data observe (weight 0: a mask's zeros) with the mean
// of the observed samples in the smallest square window around them that holds any (its radius
// doubling from the kernel's size): the margins are fitted to the image's edges, and the data
// split moves unobserved samples slowly, so they had better hold nothing of what was there and
// start near where the prior will take them.
void FillUnobserved(std::span<double> plane, std::span<const float> weights, int width, int height,
                    int radius) {
  const int W = width, H = height;
  std::vector<int> missing;
  for (int i = 0; i < W * H; ++i)
    if (weights[i] == 0.0f) missing.push_back(i);
  if (missing.empty()) return;
  // Summed-area tables of the observed values and of their count.
  std::vector<double> sum(static_cast<size_t>(W + 1) * (H + 1)), count(sum.size());
  for (int y = 0; y < H; ++y)
    for (int x = 0; x < W; ++x) {
      const bool known = weights[static_cast<size_t>(y) * W + x] != 0.0f;
      const size_t i = static_cast<size_t>(y + 1) * (W + 1) + x + 1;
      sum[i] = (known ? plane[static_cast<size_t>(y) * W + x] : 0.0) + sum[i - 1] + sum[i - W - 1] -
               sum[i - W - 2];
      count[i] = (known ? 1.0 : 0.0) + count[i - 1] + count[i - W - 1] - count[i - W - 2];
    }
  auto box = [&](const std::vector<double>& t, int x0, int y0, int x1, int y1) {
    return t[static_cast<size_t>(y1) * (W + 1) + x1] - t[static_cast<size_t>(y0) * (W + 1) + x1] -
           t[static_cast<size_t>(y1) * (W + 1) + x0] + t[static_cast<size_t>(y0) * (W + 1) + x0];
  };
  for (int index : missing) {
    const int x = index % W, y = index / W;
    for (int r = std::max(radius, 1);; r *= 2) {
      const int x0 = std::max(0, x - r), y0 = std::max(0, y - r);
      const int x1 = std::min(W, x + r + 1), y1 = std::min(H, y + r + 1);
      const double n = box(count, x0, y0, x1, y1);
      if (n > 0.0 || (x0 == 0 && y0 == 0 && x1 == W && y1 == H)) {
        plane[index] = n > 0.0 ? box(sum, x0, y0, x1, y1) / n : 0.0;
        break;
      }
    }
  }
}

// The image's planes with their last column and row repeated to even sizes, which the margin
// fit takes.
std::vector<double> EvenPlanes(std::span<const double> planes, const SplitRun& run, int evenWidth,
                               int evenHeight) {
  std::vector<double> out(static_cast<size_t>(evenWidth) * evenHeight * run.channels);
  for (int c = 0; c < run.channels; ++c)
    for (int y = 0; y < evenHeight; ++y) {
      const double* in =
          planes.data() +
          (static_cast<size_t>(c) * run.height + std::min(y, run.height - 1)) * run.width;
      double* row = out.data() + (static_cast<size_t>(c) * evenHeight + y) * evenWidth;
      std::copy_n(in, run.width, row);
      if (evenWidth > run.width) row[run.width] = in[run.width - 1];
    }
  return out;
}

Working PrepareWorking(const SplitRun& run) {
  const PreparedKernel& kernel = *run.kernel;
  Working w;
  const size_t imageSize = static_cast<size_t>(run.width) * run.height;
  const bool planeWeights = run.weights.size() >= imageSize * run.channels;
  auto imageWeights = [&](int c) {
    return run.weights.subspan(planeWeights ? c * imageSize : 0, imageSize);
  };
  std::vector<double> image(run.planes.begin(), run.planes.end());
  if (!run.weights.empty())
    for (int c = 0; c < run.channels; ++c)
      FillUnobserved({image.data() + c * imageSize, imageSize}, imageWeights(c), run.width,
                     run.height, std::max(kernel.width, kernel.height));
  if (run.boundary == Boundary::kPeriodic) {
    w.size = {run.width, run.height, 1};
    w.planes = std::move(image);
  } else {
    const int evenWidth = run.width + (run.width & 1), evenHeight = run.height + (run.height & 1);
    // Smooth margins are three kernel sizes wide, as the frequency solver's; unknown borders
    // need only the kernel's reach (the kernel carries a zero border, so half its size is
    // more than its radius).
    const int reachX = run.boundary == Boundary::kSmooth ? 6 * kernel.width : kernel.width + 1;
    const int reachY = run.boundary == Boundary::kSmooth ? 6 * kernel.height : kernel.height + 1;
    const int padX = (NextFastSize(evenWidth + reachX) - evenWidth) / 2;
    const int padY = (NextFastSize(evenHeight + reachY) - evenHeight) / 2;
    w.size = {evenWidth + 2 * padX, evenHeight + 2 * padY, 1};
    w.offsetX = padX;
    w.offsetY = padY;
    w.planes = extendPeriodicBorderPlanesFast(EvenPlanes(image, run, evenWidth, evenHeight),
                                              run.channels, evenWidth, evenHeight, padX, padY,
                                              kernel.width, kernel.height, run.threads);
  }
  // Weights: the image's own where it lies; the margins observed (smooth: the fitted margin is
  // taken as data) or not (unknown).
  const size_t planeSize = w.size.Samples();
  const float margin = run.boundary == Boundary::kUnknown ? 0.0f : 1.0f;
  w.weights.assign(planeSize * run.channels, margin);
  for (int c = 0; c < run.channels; ++c) {
    const float* in = run.weights.empty() ? nullptr : imageWeights(c).data();
    for (int y = 0; y < run.height; ++y) {
      float* row = w.weights.data() + c * planeSize +
                   static_cast<size_t>(y + w.offsetY) * w.size.width + w.offsetX;
      if (in)
        std::copy_n(in + static_cast<size_t>(y) * run.width, run.width, row);
      else
        std::fill_n(row, run.width, 1.0f);
    }
  }
  return w;
}

}  // namespace

SplitRunStats RunSplitSolver(const SplitRun& run) {
  const PreparedKernel& kernel = *run.kernel;
  if (kernel.width > run.width || kernel.height > run.height) {
    throw Error("the kernel (" + std::to_string(kernel.width) + " x " +
                std::to_string(kernel.height) +
                " after trimming and bordering) is larger than the image (" +
                std::to_string(run.width) + " x " + std::to_string(run.height) + ")");
  }
  if (run.progress) run.progress("margins", 0.0);
  Working w = PrepareWorking(run);
  const size_t planeSize = w.size.Samples();
  SplitDeconvSolver solver(w.size, kernel.values, {kernel.width, kernel.height, 1}, run.threads);
  std::vector<double> estimate(planeSize);
  SplitRunStats stats;
  stats.working = w.size;
  for (int c = 0; c < run.channels; ++c) {
    const double done = kMarginShare + (1.0 - kMarginShare) * c / run.channels;
    if (run.progress) {
      run.progress("deconvolution", done);
      solver.progress = [&](double fraction) {
        run.progress("deconvolution", done + (1.0 - kMarginShare) * fraction / run.channels);
      };
    }
    std::span<const double> observed(w.planes.data() + c * planeSize, planeSize);
    std::copy(observed.begin(), observed.end(), estimate.begin());
    solver.Solve(observed, {w.weights.data() + c * planeSize, planeSize}, estimate, run.settings);
    stats.innerRounds += solver.lastSolve.innerRounds;
    for (int y = 0; y < run.height; ++y)
      std::copy_n(estimate.data() + static_cast<size_t>(y + w.offsetY) * w.size.width + w.offsetX,
                  run.width,
                  run.planes.data() + (static_cast<size_t>(c) * run.height + y) * run.width);
  }
  return stats;
}

}  // namespace marlith
