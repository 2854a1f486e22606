#include "plane/channel_solve.h"

#include <algorithm>
#include <cassert>

namespace marlith {

ChannelSolver::ChannelSolver(int width, int height, std::span<const double> kernel, int kernelWidth,
                             int kernelHeight, double localPriorWeight, int threads) {
  solver_.Setup(nullptr, width, height, 0, threads);
  solver_.SetKernel(kernel, kernelWidth, kernelHeight);
  solver_.SetIterationSettings(localPriorWeight, 15, 15, 0.000144, 9);
  solver_.SetPriorShape(0.0001, 0.5, 1.0);
}

void ChannelSolver::SetKernel(std::span<const double> kernel, int kernelWidth, int kernelHeight) {
  solver_.SetKernel(kernel, kernelWidth, kernelHeight);
}

void ChannelSolver::Solve(std::span<const double> observed, std::span<double> result, int channels,
                          double noise) {
  const size_t planeSize = static_cast<size_t>(solver_.width()) * solver_.height();
  assert(observed.size() >= planeSize * channels && result.size() >= planeSize * channels);
  for (int c = 0; c < channels; ++c) {
    solver_.SetImage(observed.data() + c * planeSize);
    solver_.PrepareWeights(129);
    // The result's plane serves as a working plane: one plane less of fresh memory, and no copy
    // when the solve ends in it.
    solver_.LendPlane(result.data() + c * planeSize);
    solver_.SolveWithNoise(noise);
    // With no round to do (a very large noise strength) the output is the input plane itself,
    // which may already be where the result goes.
    const std::span<const double> output = solver_.output();
    if (output.data() != result.data() + c * planeSize)
      std::copy(output.begin(), output.end(), result.begin() + c * planeSize);
  }
}

}  // namespace marlith
