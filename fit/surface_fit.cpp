#include "fit/surface_fit.h"

#include <algorithm>
#include <cassert>
#include <vector>

#include "fit/harmonic_patch_solver.h"
#include "fit/kernel_bank.h"
#include "fit/plane_filter.h"

namespace marlith {
namespace {

enum class SideMode { kLinear, kNeumann, kDebug };

// Filter ids other than these select nothing; 1024 selects the empty kernel (convolution).
int32_t OrientationOf(int32_t id) { return id == 1024 ? kConvolution : kCorrelation; }

// Side values between the corners start (entry 0) and end (entry n). The interior blend runs
// from the end value back towards the start value; the reversal is deliberate and kept.
std::vector<double> LinearSide(double start, double end, int n) {
  std::vector<double> side(n + 1);
  side[0] = start;
  side[n] = end;
  for (int k = 1; k < n; ++k) side[k] = ((n - k) * end + k * start) / n;
  return side;
}

int32_t FitSurface(const SurfaceFitRequest& r, SideMode mode) {
  const int W = r.width, H = r.height;
  const size_t n = static_cast<size_t>(W) * H;
  assert(W >= 1 && H >= 1);
  assert(r.input.size() >= n && r.output.size() >= n && r.mask.size() >= n);
  const bool inPlace = r.input.data() == r.output.data();
  std::vector<double> privatePlane;
  if (inPlace) privatePlane.assign(r.input.begin(), r.input.begin() + n);
  const std::span<double> work = inPlace ? std::span<double>(privatePlane) : r.output.first(n);
  if (!inPlace) std::copy_n(r.input.begin(), n, work.begin());

  const ResolvedStages schedule = resolveSurfaceFitStages(r);

  // The rectangle.
  enum { kInner, kFullWidth, kFullHeight } shape = kInner;
  int x0 = r.x0, x1 = r.x1, y0 = r.y0, y1 = r.y1;
  if (x0 < 0) {
    x0 = 0;
    x1 = W - 1;
    shape = kFullWidth;
  } else if (y0 < 0) {
    y0 = 0;
    y1 = H - 1;
    shape = kFullHeight;
  }
  assert(0 <= x0 && x0 <= x1 && x1 < W && 0 <= y0 && y0 <= y1 && y1 < H);
  HarmonicPatch patch;
  patch.width = x1 - x0 + 1;
  patch.height = y1 - y0 + 1;
  auto at = [&](int x, int y) { return r.input[static_cast<size_t>(y) * W + x]; };
  for (int x = x0; x <= x1; ++x) {
    patch.firstRow.push_back(at(x, y0));
    patch.lastRow.push_back(at(x, y1));
  }
  for (int y = y0; y <= y1; ++y) {
    patch.firstColumn.push_back(at(x0, y));
    patch.lastColumn.push_back(at(x1, y));
  }
  patch.code = "DDDD";
  if (mode == SideMode::kLinear) {
    if (shape == kFullWidth) {
      patch.firstColumn = LinearSide(at(x0, y0), at(x0, y1), y1 - y0);
      patch.lastColumn = LinearSide(at(x1, y0), at(x1, y1), y1 - y0);
    } else if (shape == kFullHeight) {
      patch.firstRow = LinearSide(at(x0, y0), at(x1, y0), x1 - x0);
      patch.lastRow = LinearSide(at(x0, y1), at(x1, y1), x1 - x0);
    }
  } else if (shape == kFullWidth) {
    std::fill(patch.firstColumn.begin(), patch.firstColumn.end(), 0.0);
    std::fill(patch.lastColumn.begin(), patch.lastColumn.end(), 0.0);
    patch.code = "NNDD";
  } else if (shape == kFullHeight) {
    std::fill(patch.firstRow.begin(), patch.firstRow.end(), 0.0);
    std::fill(patch.lastRow.begin(), patch.lastRow.end(), 0.0);
    patch.code = "DDNN";
  }

  buildKernelBank();
  if (mode == SideMode::kDebug) {
    // Right-hand side: the data's 3 x 3 Laplacian over the rectangle (filtering the whole
    // plane when the rectangle is smaller, so its edges see their outside neighbours).
    const KernelDescriptor lap = bankKernel(BankKernel::kLaplacian);
    std::vector<double> rhs(static_cast<size_t>(patch.width) * patch.height);
    if (patch.width < W || patch.height < H) {
      std::vector<double> filtered(n);
      filterPlane({r.input.first(n), filtered, W, H, 1.0, lap.kernel, 3, 3, kBoundaryReplicate,
                   kCorrelation});
      for (int y = 0; y < patch.height; ++y)
        std::copy_n(filtered.begin() + static_cast<ptrdiff_t>(y + y0) * W + x0, patch.width,
                    rhs.begin() + static_cast<ptrdiff_t>(y) * patch.width);
    } else {
      filterPlane(
          {r.input.first(n), rhs, W, H, 1.0, lap.kernel, 3, 3, kBoundaryReplicate, kCorrelation});
    }
    solvePoissonPatch(patch, rhs);
  } else {
    solveHarmonicPatch(patch);
  }
  for (int y = 0; y < patch.height; ++y)
    std::copy_n(patch.solution.begin() + static_cast<ptrdiff_t>(y) * patch.width, patch.width,
                work.begin() + static_cast<ptrdiff_t>(y + y0) * W + x0);
  if (mode == SideMode::kDebug && r.debugWriter) r.debugWriter(work, W, H);

  // Smoothing stages: filter, then put the known data back under the mask.
  const KernelDescriptor* kernel = nullptr;
  int32_t orientation = kCorrelation;
  std::vector<double> filtered;  // made once, on the first stage that filters
  for (int s = 0; s < schedule.count; ++s) {
    const SurfaceFitStage& stage = schedule.stages[s];
    // An id without a kernel keeps the previous stage's kernel (and orientation) in force.
    if (const KernelDescriptor* selected = smoothingKernel(stage.filterId)) {
      kernel = selected;
      orientation = OrientationOf(stage.filterId);
    }
    if (!kernel || kernel->empty() || stage.repeats <= 0) continue;
    filtered.resize(n);
    for (int k = 0; k < stage.repeats; ++k) {
      filterPlane({work, filtered, W, H, 1.0, kernel->kernel, kernel->width, kernel->height,
                   kBoundaryReplicate, orientation});
      // The data is read from the input, which the working plane never aliases.
      for (size_t i = 0; i < n; ++i)
        work[i] = r.mask[i] * r.input[i] + (1.0 - r.mask[i]) * filtered[i];
    }
  }
  if (inPlace) std::copy(privatePlane.begin(), privatePlane.end(), r.output.begin());
  return 0;
}

}  // namespace

ResolvedStages resolveSurfaceFitStages(const SurfaceFitRequest& r) {
  ResolvedStages out;
  const int32_t iterations = r.iterations == -1 ? 50 : r.iterations;
  if (r.stageCount == -1 || r.stageCount == -2) {
    const int32_t first = std::min(iterations, r.stageCount == -1 ? 4 : 2);
    out.count = 2;
    out.stages[0] = {6, first};
    out.stages[1] = {r.stageCount == -1 ? 1 : 1024, std::max(iterations - first, 0)};
  } else {
    // A count outside 0..10 (other than the two defaults) is a caller's slip; clamping keeps
    // the stage loop inside the fixed table rather than reading past it.
    out.count = std::clamp(r.stageCount, 0, 10);
    out.stages = r.stages;
  }
  return out;
}

int32_t fitSurfaceLinearSides(const SurfaceFitRequest& request) {
  return FitSurface(request, SideMode::kLinear);
}

int32_t fitSurfaceNeumannSides(const SurfaceFitRequest& request) {
  return FitSurface(request, SideMode::kNeumann);
}

int32_t fitSurfaceDebug(const SurfaceFitRequest& request) {
  return FitSurface(request, SideMode::kDebug);
}

}  // namespace marlith
