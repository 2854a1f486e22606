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
  int offsetX = 0, offsetY = 0, offsetZ = 0;  // where the image's sample (0, 0, 0) lies
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

// The image's planes (slices) with their last column and row repeated to even sizes, which the
// margin fit takes.
std::vector<double> EvenPlanes(std::span<const double> planes, const SplitRun& run, int evenWidth,
                               int evenHeight) {
  const int slices = run.channels * run.depth;
  std::vector<double> out(static_cast<size_t>(evenWidth) * evenHeight * slices);
  for (int c = 0; c < slices; ++c)
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

// Places the working slices of a volume (channels x depth planes of the working width and
// height) in a working volume with z margins, which the data do not observe: they start as a
// blend from the last slice to the first, the volume's periodic continuation.
void AddDepthMargins(Working& w, const SplitRun& run, std::vector<double> slices) {
  const size_t sliceSize = static_cast<size_t>(w.size.width) * w.size.height;
  const int depth = w.size.depth, margin = depth - run.depth;
  std::vector<double> volume(sliceSize * depth * run.channels);
  for (int c = 0; c < run.channels; ++c) {
    const double* first = slices.data() + static_cast<size_t>(c) * run.depth * sliceSize;
    const double* last = first + (run.depth - 1) * sliceSize;
    double* out = volume.data() + static_cast<size_t>(c) * depth * sliceSize;
    std::copy_n(first, run.depth * sliceSize, out + w.offsetZ * sliceSize);
    for (int k = 1; k <= margin; ++k) {
      const double f = static_cast<double>(k) / (margin + 1);
      double* slice = out + ((w.offsetZ + run.depth - 1 + k) % depth) * sliceSize;
      for (size_t i = 0; i < sliceSize; ++i) slice[i] = (1.0 - f) * last[i] + f * first[i];
    }
  }
  w.planes = std::move(volume);
}

Working PrepareWorking(const SplitRun& run) {
  const PreparedKernel& kernel = *run.kernel;
  Working w;
  const size_t sliceSize = static_cast<size_t>(run.width) * run.height;
  const size_t imageSize = sliceSize * run.depth;
  const bool planeWeights = run.weights.size() >= imageSize * run.channels;
  auto imageWeights = [&](int c) {
    return run.weights.subspan(planeWeights ? c * imageSize : 0, imageSize);
  };
  std::vector<double> image(run.planes.begin(), run.planes.end());
  if (!run.weights.empty())
    for (int s = 0; s < run.channels * run.depth; ++s)
      FillUnobserved({image.data() + s * sliceSize, sliceSize},
                     imageWeights(s / run.depth).subspan((s % run.depth) * sliceSize, sliceSize),
                     run.width, run.height, std::max(kernel.width, kernel.height));
  if (run.boundary == Boundary::kPeriodic) {
    w.size = {run.width, run.height, run.depth};
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
    std::vector<double> slices = extendPeriodicBorderPlanesFast(
        EvenPlanes(image, run, evenWidth, evenHeight), run.channels * run.depth, evenWidth,
        evenHeight, padX, padY, kernel.width, kernel.height, run.threads);
    image = {};
    if (run.depth == 1) {
      w.planes = std::move(slices);
    } else {
      // Along z the borders are unknown: margins as deep as the kernel reaches.
      w.size.depth = NextFastSize(run.depth + kernel.depth + 1);
      w.offsetZ = (w.size.depth - run.depth) / 2;
      AddDepthMargins(w, run, std::move(slices));
    }
  }
  // Weights: the image's own where it lies; the margins observed (smooth: the fitted margin is
  // taken as data) or not (unknown).
  const size_t planeSize = w.size.Samples();
  const size_t workingSlice = static_cast<size_t>(w.size.width) * w.size.height;
  const float margin = run.boundary == Boundary::kUnknown ? 0.0f : 1.0f;
  w.weights.assign(planeSize * run.channels, margin);
  for (int c = 0; c < run.channels; ++c) {
    float* volume = w.weights.data() + c * planeSize;
    if (w.size.depth > run.depth) {
      std::fill_n(volume, w.offsetZ * workingSlice, 0.0f);
      std::fill(volume + (w.offsetZ + run.depth) * workingSlice, volume + planeSize, 0.0f);
    }
    const float* in = run.weights.empty() ? nullptr : imageWeights(c).data();
    for (int z = 0; z < run.depth; ++z)
      for (int y = 0; y < run.height; ++y) {
        float* row = volume + (z + w.offsetZ) * workingSlice +
                     static_cast<size_t>(y + w.offsetY) * w.size.width + w.offsetX;
        if (in)
          std::copy_n(in + z * sliceSize + static_cast<size_t>(y) * run.width, run.width, row);
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
  if (run.boundary == Boundary::kPeriodic && kernel.depth > run.depth) {
    throw Error("the kernel's " + std::to_string(kernel.depth) +
                " slices (after trimming and bordering) are more than the volume's " +
                std::to_string(run.depth) + " for periodic borders");
  }
  if (run.progress) run.progress("margins", 0.0);
  Working w = PrepareWorking(run);
  const size_t planeSize = w.size.Samples();
  SplitDeconvSolver solver(w.size, kernel.values, {kernel.width, kernel.height, kernel.depth},
                           run.threads);
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
    // The observed samples are the starting point, and the result replaces them.
    std::span<double> estimate(w.planes.data() + c * planeSize, planeSize);
    solver.Solve(estimate, {w.weights.data() + c * planeSize, planeSize}, estimate, run.settings);
    stats.innerRounds += solver.lastSolve.innerRounds;
    const size_t workingSlice = static_cast<size_t>(w.size.width) * w.size.height;
    for (int z = 0; z < run.depth; ++z)
      for (int y = 0; y < run.height; ++y)
        std::copy_n(estimate.data() + (z + w.offsetZ) * workingSlice +
                        static_cast<size_t>(y + w.offsetY) * w.size.width + w.offsetX,
                    run.width,
                    run.planes.data() +
                        ((static_cast<size_t>(c) * run.depth + z) * run.height + y) * run.width);
  }
  return stats;
}

}  // namespace marlith
