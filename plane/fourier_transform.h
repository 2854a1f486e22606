// Two-dimensional real transforms of one working size, planned once and reused.
#pragma once

#include <complex>
#include <cstdint>

#include "plane/fftw_plan.h"

namespace marlith {

using Complex = std::complex<double>;  // layout-compatible with fftw_complex

// Number of complex values in the half spectrum of a real W x H plane: (W / 2 + 1) x H. The
// other half follows from conjugate symmetry, so the solver stores only this half.
inline size_t HalfSpectrumSize(int width, int height) {
  return static_cast<size_t>(width / 2 + 1) * height;
}

// A transform object of one kind: kind 2 takes a real W x H plane to its half spectrum (row
// length W / 2 + 1), kind 3 takes a half spectrum back to the real plane and divides by W x H,
// so that inverse(forward(x)) = x. Plans are made once, on FFTW-aligned buffers, and executed
// on any FFTW-aligned arrays of the same size (AllocateFftwBuffer); execution is thread-safe.
class SpectralTransform {
 public:
  enum Kind : int { kForward = 2, kInverse = 3 };
  // Where a forward transform's plane is: an array of its own, or the spectrum's array itself,
  // its rows padded to 2 (W / 2 + 1) values (InPlaceRowLength), which the spectrum overwrites.
  enum Placement : int { kSeparate, kInPlace };

  // Plans the transform for width x height (height rows of width values). threads > 1 lets
  // FFTW split each transform over that many threads. Only a forward transform can be planned
  // in place.
  SpectralTransform(int width, int height, Kind kind, int threads = 1,
                    Placement placement = kSeparate);

  int width() const { return width_; }
  int height() const { return height_; }
  Kind kind() const { return kind_; }

  // Forward (kind 2): spectrum = DFT(plane). The plane is left unchanged.
  void Forward(const double* plane, Complex* spectrum) const;
  // Forward in place: the spectrum array holds the plane (rows of InPlaceRowLength() values, the
  // last two of each row unused) and receives its half spectrum.
  void ForwardInPlace(Complex* spectrum) const;
  int InPlaceRowLength() const { return 2 * (width_ / 2 + 1); }
  // Inverse (kind 3): plane = IDFT(spectrum) / (W x H). The spectrum is overwritten.
  void Inverse(Complex* spectrum, double* plane) const;
  // Inverse without the 1 / (W x H) factor, for callers that fold it into an earlier pass.
  void InverseUnscaled(Complex* spectrum, double* plane) const;

 private:
  int width_;
  int height_;
  Kind kind_;
  [[maybe_unused]] Placement placement_;  // read by assertions only
  FftwPlan plan_;
};

}  // namespace marlith
