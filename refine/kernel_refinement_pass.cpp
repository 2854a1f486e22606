#include "refine/kernel_refinement_pass.h"

#include <algorithm>
#include <cassert>
#include <vector>

#include "engine/deconv_solver.h"
#include "engine/plane_padding.h"
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

int32_t RunKernelRefinementPass(const DeconvRequest& request, std::span<double> kernel) {
  assert(request.kernel == kernel.data());
  const size_t kernelSize = static_cast<size_t>(request.kernelWidth) * request.kernelHeight;
  EvenSizeWork work = MakeEvenSizeWork(request);
  ExtendToEvenSize(work);
  const int W = work.workWidth, H = work.workHeight;
  const size_t planeSize = static_cast<size_t>(W) * H;

  // The solver lives for this pass only. (The original pass left it allocated, a leak per call
  // in a long-lived process; releasing it changes nothing a caller can see.)
  SpectralDeconvSolver solver;
  solver.Setup(nullptr, W, H, 0);
  solver.SetKernel(kernel.first(kernelSize), request.kernelWidth, request.kernelHeight);
  std::vector<double> latentPlanes(planeSize * request.channels);
  // A fixed local-prior weight here, not the request's.
  solver.SetIterationSettings(1000.0, 15, 15, 0.000144, 9);
  solver.SetPriorShape(0.0001, 0.5, 1.0);

  auto deconvolveAll = [&](double noise) {
    for (int c = 0; c < request.channels; ++c) {
      solver.SetImage(work.planes.data() + c * planeSize);
      solver.PrepareWeights(129);
      solver.SolveWithNoise(noise);
      std::copy(solver.output().begin(), solver.output().end(),
                latentPlanes.begin() + static_cast<ptrdiff_t>(c * planeSize));
    }
  };
  // A smoother first latent image (four times the noise) to fit the kernel from.
  deconvolveAll(request.noise * 4.0);
  reestimateKernel(work.planes, latentPlanes, W, H, request.channels, kernel.first(kernelSize),
                   request.kernelWidth, request.kernelHeight, kernel.first(kernelSize),
                   KernelEstimateSettings{0.1, 0.7});
  CleanKernel(kernel.first(kernelSize));
  // The solver keeps the spectra of the kernel it was given: the refined kernel reaches the
  // caller through the kernel array only.
  deconvolveAll(request.noise);
  CropCenteredBack(latentPlanes, W, H, request.width, request.height, request.channels,
                   std::span<double>(request.output, static_cast<size_t>(request.width) *
                                                         request.height * request.channels));
  return 0;
}

}  // namespace marlith
