// Every channel of an image deconvolved with one solver object: the set-up, the fixed settings
// and the channel loop shared by the engine's solver run and the kernel refinement pass.
#pragma once

#include <functional>
#include <span>

#include "plane/deconv_solver.h"

namespace marlith {

// One SpectralDeconvSolver at a working size, set up with the engine's fixed settings (prior
// shape 0.0001, 0.5, 1.0; smooth-region settings 15, 15, 0.000144, 9) and a kernel.
class ChannelSolver {
 public:
  // width x height is the (even) working size; the kernel, kernelWidth x kernelHeight, must fit
  // it (throws marlith::Error otherwise). localPriorWeight is already scaled (user value x 20).
  // threads: threads for each transform and each pass over the planes.
  ChannelSolver(int width, int height, std::span<const double> kernel, int kernelWidth,
                int kernelHeight, double localPriorWeight, int threads);

  // Replaces the kernel spectra (the refinement pass's second solve may use its refined kernel).
  void SetKernel(std::span<const double> kernel, int kernelWidth, int kernelHeight);

  // Called after every inner round with the fraction of one channel's solve done, in [0, 1].
  // It may throw (to cancel): the solver's planes stay valid and are released normally.
  void SetProgress(std::function<void(double)> progress) { solver_.progress = std::move(progress); }

  // Deconvolves each of channels planes of observed (channels x height x width) with the noise
  // value (already scaled: user value / 2000) into result, channel by channel in order. result
  // is either the same planes as observed or apart from them: a channel's result plane serves
  // its solve as a working plane.
  void Solve(std::span<const double> observed, std::span<double> result, int channels,
             double noise);

  int width() const { return solver_.width(); }
  int height() const { return solver_.height(); }

 private:
  SpectralDeconvSolver solver_;
};

}  // namespace marlith
