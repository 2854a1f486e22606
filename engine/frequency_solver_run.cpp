#include "engine/frequency_solver_run.h"

#include <span>
#include <string>
#include <vector>

#include "engine/plane_padding.h"
#include "engine/spectral_deconv_solver.h"
#include "marlith/error.hpp"

namespace marlith {

int RunFrequencySolver(const DeconvRequest& request) {
  const size_t inputSize = static_cast<size_t>(request.width) * request.height * request.channels;
  EvenSizeWork work;
  work.input = std::span<const double>(request.input, inputSize);
  work.width = request.width;
  work.height = request.height;
  work.channels = request.channels;
  work.marginWidth = request.kernelWidth;
  work.marginHeight = request.kernelHeight;
  work.boundaryType = request.boundaryType;
  ExtendToEvenSize(work);
  if (work.boundaryType != 0) {
    throw Error("boundary type " + std::to_string(work.boundaryType) +
                " is not supported yet: use 0");
  }
  const int W = work.workWidth, H = work.workHeight;
  const size_t planeSize = static_cast<size_t>(W) * H;

  SpectralDeconvSolver solver;
  solver.Setup(nullptr, W, H, 0);
  solver.SetKernel(
      std::span<const double>(request.kernel,
                              static_cast<size_t>(request.kernelWidth) * request.kernelHeight),
      request.kernelWidth, request.kernelHeight);
  solver.SetIterationSettings(request.localPriorWeight, 15, 15, 0.000144, 9);
  solver.SetPriorShape(0.0001, 0.5, 1.0);

  std::vector<double> result(planeSize * work.channels);
  for (int c = 0; c < work.channels; ++c) {
    solver.SetImage(work.planes.data() + c * planeSize);
    solver.PrepareWeights(129);
    solver.SolveWithNoise(request.noise);
    std::copy(solver.output().begin(), solver.output().end(), result.begin() + c * planeSize);
  }
  CropCenteredBack(result, W, H, request.width, request.height, request.channels,
                   std::span<double>(request.output, inputSize));
  return 0;
}

}  // namespace marlith
