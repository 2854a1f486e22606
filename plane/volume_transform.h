// Real transforms of 2-D planes and 3-D volumes in place, planned once and reused: the spectrum
// overwrites the samples it comes from, so a solver's real planes and spectra share arrays.
#pragma once

#include <complex>
#include <cstddef>

#include "plane/fftw_plan.h"

namespace marlith {

// A working size: width samples a row (x, fastest), height rows a slice (y), depth slices (z;
// 1 for a plane).
struct VolumeSize {
  int width = 0, height = 0, depth = 1;

  size_t Samples() const { return static_cast<size_t>(width) * height * depth; }
  size_t Rows() const { return static_cast<size_t>(height) * depth; }
  // In-place layout: every row padded to 2 (width / 2 + 1) values, the length of a row of the
  // half spectrum in doubles.
  size_t PaddedRowLength() const { return 2 * (static_cast<size_t>(width) / 2 + 1); }
  size_t PaddedSamples() const { return PaddedRowLength() * Rows(); }
  // Complex values of the half spectrum: (width / 2 + 1) x height x depth.
  size_t SpectrumSize() const { return PaddedSamples() / 2; }
  bool operator==(const VolumeSize&) const = default;
};

// The forward and inverse transform of one size, both in place on arrays in the padded layout
// (FFTW-aligned, PaddedSamples() doubles): Forward leaves the half spectrum where the samples
// were; Inverse takes it back to samples without dividing by their count (the caller folds
// 1 / Samples() into a pass of its own). Executing is thread-safe.
class VolumeTransform {
 public:
  // threads > 1 lets FFTW split each transform over that many threads.
  VolumeTransform(VolumeSize size, int threads);

  void Forward(double* data) const;
  void Inverse(double* data) const;
  VolumeSize size() const { return size_; }

 private:
  VolumeSize size_;
  FftwPlan forward_, inverse_;
};

}  // namespace marlith
