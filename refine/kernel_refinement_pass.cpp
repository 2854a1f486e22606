#include "refine/kernel_refinement_pass.h"

#include <algorithm>
#include <cassert>
#include <vector>

#include "plane/channel_solve.h"
#include "plane/plane_padding.h"
#include "refine/kernel_reestimation.h"

namespace marlith {

void CleanKernel(std::span<double> kernel) {
  double m = 0.0;
  for (double v : kernel) m = std::max(m, v);
  double sum = 0.0;
  for (double& v : kernel) {
    if (!(v > 0.1 * m)) v = 0.0;
    sum += v;
  }
  for (double& v : kernel) v /= sum;
}

std::vector<double> RefineKernelAndSolve(std::span<const double> workPlanes, int width, int height,
                                         int channels, std::span<double> kernel, int kernelWidth,
                                         int kernelHeight, const RefinementSettings& settings) {
  const size_t kernelSize = static_cast<size_t>(kernelWidth) * kernelHeight;
  kernel = kernel.first(kernelSize);
  // A fixed local-prior weight here, not the request's.
  ChannelSolver solver(width, height, kernel, kernelWidth, kernelHeight, 1000.0, settings.threads);
  std::vector<double> latentPlanes(workPlanes.size());
  // The two solves (every channel) take 0.45 of the pass's progress each, the kernel fit
  // between them the remaining tenth.
  auto solveAll = [&](double noise, double start) {
    const size_t planeSize = static_cast<size_t>(width) * height;
    for (int c = 0; c < channels; ++c) {
      if (settings.progress) {
        const double from = start + 0.45 * c / channels, share = 0.45 / channels;
        solver.SetProgress(
            [&settings, from, share](double f) { settings.progress(from + share * f); });
      }
      solver.Solve(workPlanes.subspan(c * planeSize, planeSize),
                   std::span<double>(latentPlanes).subspan(c * planeSize, planeSize), 1, noise);
    }
  };
  // A smoother first latent image (four times the noise) to fit the kernel from.
  solveAll(settings.noise * 4.0, 0.0);
  // The fit reports no fraction of its own, but its steps give a cancellation a chance to stop
  // it (at 3 MP it takes seconds).
  KernelEstimateSettings fit{0.1, 0.7, nullptr};
  if (settings.progress) fit.checkpoint = [&settings] { settings.progress(0.45); };
  reestimateKernel(workPlanes, latentPlanes, width, height, channels, kernel, kernelWidth,
                   kernelHeight, kernel, fit);
  CleanKernel(kernel);
  if (settings.progress) settings.progress(0.55);
  if (settings.solveWithRefinedKernel) solver.SetKernel(kernel, kernelWidth, kernelHeight);
  solveAll(settings.noise, 0.55);
  return latentPlanes;
}

int32_t RunKernelRefinementPass(const DeconvRequest& request, std::span<double> kernel) {
  assert(request.kernel == kernel.data());
  EvenSizeWork work = MakeEvenSizeWork(request);
  ExtendToEvenSize(work);
  RefinementSettings settings;
  settings.noise = request.noise;
  const std::vector<double> latentPlanes =
      RefineKernelAndSolve(work.planes, work.workWidth, work.workHeight, request.channels, kernel,
                           request.kernelWidth, request.kernelHeight, settings);
  CropCenteredBack(latentPlanes, work.workWidth, work.workHeight, request.width, request.height,
                   request.channels,
                   std::span<double>(request.output, static_cast<size_t>(request.width) *
                                                         request.height * request.channels));
  return 0;
}

}  // namespace marlith
