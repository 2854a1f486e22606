#include "engine/frequency_solver_run.h"

#include <algorithm>
#include <span>
#include <string>
#include <thread>
#include <vector>

#include "engine/deconv_solver.h"
#include "engine/plane_padding.h"
#include "fit/border_extension.h"
#include "marlith/error.hpp"

namespace marlith {

WorkingPlanes PrepareWorkingPlanes(const DeconvRequest& request) {
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
    // Margins of three kernel sizes on every side, fitted from bands one kernel size wide.
    out.planes = extendPeriodicBorderPlanes(out.planes, work.channels, out.width, out.height,
                                            3 * work.marginWidth, 3 * work.marginHeight,
                                            work.marginWidth, work.marginHeight);
    out.width += 6 * work.marginWidth;
    out.height += 6 * work.marginHeight;
  }
  return out;
}

int RunFrequencySolver(const DeconvRequest& request) {
  WorkingPlanes work = PrepareWorkingPlanes(request);
  const int W = work.width, H = work.height;
  const size_t planeSize = static_cast<size_t>(W) * H;
  const size_t inputSize = static_cast<size_t>(request.width) * request.height * request.channels;

  SpectralDeconvSolver solver;
  // Every core: the transforms and the passes over the planes split their work.
  solver.Setup(nullptr, W, H, 0,
               static_cast<int>(std::max(1u, std::thread::hardware_concurrency())));
  solver.SetKernel(
      std::span<const double>(request.kernel,
                              static_cast<size_t>(request.kernelWidth) * request.kernelHeight),
      request.kernelWidth, request.kernelHeight);
  solver.SetIterationSettings(request.localPriorWeight, 15, 15, 0.000144, 9);
  solver.SetPriorShape(0.0001, 0.5, 1.0);

  // Each channel's result replaces its working plane, which the solve no longer needs.
  for (int c = 0; c < request.channels; ++c) {
    double* plane = work.planes.data() + c * planeSize;
    solver.SetImage(plane);
    solver.PrepareWeights(129);
    solver.SolveWithNoise(request.noise);
    std::copy(solver.output().begin(), solver.output().end(), plane);
  }
  CropCenteredBack(work.planes, W, H, request.width, request.height, request.channels,
                   std::span<double>(request.output, inputSize));
  return 0;
}

}  // namespace marlith
