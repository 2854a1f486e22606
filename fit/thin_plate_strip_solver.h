// Solves of the weighted thin-plate system (B + diag(w)) x = b for weight planes that vary
// along one axis only, as the seam strips of the border extension do. Private to fit/.
//
// Along the axis where the weights do not change, B is a polynomial in the second difference.
// With that axis periodic, the real Fourier transform diagonalises it; with its ends mirrored
// (x[-1] = x[0], x[-2] = x[1]) the cosine transform (DCT-II) does. Either way the system splits
// into one banded system per mode across the other axis (bandwidth 2, clamped at its ends),
// solved directly in O(n log n): SolveTransformed.
//
// The border extension's exact strips are clamped at both ends of the transformed axis too:
// the stencil's outer taps read x[-2] -> x[0] where the mirror reads x[1]. The mirrored solve
// is then the preconditioner of restarted GMRES (plane/gmres) on the true clamped system
// (Solve); the two differing rows are a low-rank change, and the iteration reaches rounding
// level in a few tens of steps. Memory is a few dozen planes, where a sparse LU of a strip many
// samples wide fills in to hundreds of values per unknown.
#pragma once

#include <cstdint>
#include <memory>
#include <span>
#include <vector>

#include "plane/fftw_plan.h"
#include "plane/gmres.h"

namespace marlith {

// How the transformed axis ends.
enum class TransformedEnds { kMirrored, kPeriodic };

class ThinPlateStripSolver {
 public:
  // Returns a solver when the width x height weight plane is constant along its rows or along
  // its columns and every mode's banded system factorises, and nothing otherwise; the
  // transformed axis is the one along which the weights are constant (the rows when both are).
  // threads: threads for the transforms and passes (0: every core). Throws marlith::Error when
  // FFTW cannot plan.
  static std::unique_ptr<ThinPlateStripSolver> TryCreate(
      std::span<const double> weights, int32_t width, int32_t height, int threads = 0,
      TransformedEnds ends = TransformedEnds::kMirrored);
  ~ThinPlateStripSolver();
  ThinPlateStripSolver(const ThinPlateStripSolver&) = delete;
  ThinPlateStripSolver& operator=(const ThinPlateStripSolver&) = delete;

  // Solves the system with the transformed axis ending as asked at creation into x (which may
  // be rhs), directly.
  void SolveTransformed(std::span<const double> rhs, std::span<double> x) const;

  // Solves (B + diag(w)) x = rhs into x, clamped at every end, iterating on mirrored solves
  // (which it requires). Returns false, leaving x undefined, when the iteration does not reach
  // the tolerance, so the caller can solve another way.
  bool Solve(std::span<const double> rhs, std::span<double> x) const;

  // Iterations the last Solve took (for the tests and benchmarks).
  int lastIterations() const { return lastIterations_; }

 private:
  ThinPlateStripSolver() = default;
  void ApplySystem(const double* x, double* y) const;
  void ApplyPreconditioner(const double* r, double* z) const;

  int32_t width_ = 0, height_ = 0;
  // Lengths of the transformed axis (the weights are constant along it) and the banded one.
  int32_t transformLength_ = 0, bandLength_ = 0;
  bool weightsAlongX_ = false;  // the weights change along x (constant down columns)
  bool periodic_ = false;       // the transformed axis is periodic, else mirrored
  // The inverse transform of the forward one gives this times the input.
  double transformScale_ = 1.0;
  int threads_ = 1;
  std::vector<double> bandWeights_;  // w along the banded axis
  // The L U factors of every mode's banded system, laid out as the spectrum (band row b, mode
  // k at b * transformLength_ + k): L's first subdiagonal, the inverse of U's diagonal and U's
  // first superdiagonal (the outer diagonals follow from these).
  std::vector<double> lower1_, inverseDiagonal_, upper1_;
  FftwBuffer<double> work_, spectrum_;  // a plane as laid out, and its spectrum
  FftwPlan forward_, inverse_;
  mutable GmresWorkspace workspace_;
  mutable int lastIterations_ = 0;
};

}  // namespace marlith
