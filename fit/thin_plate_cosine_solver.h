// An iterative solve of the weighted thin-plate system (B + diag(w)) x = b for weight planes
// that vary along one axis only, as the seam strips of the border extension do. Private to fit/.
//
// Along the axis where the weights do not change, B is a polynomial in the clamped second
// difference, which the cosine transform (DCT-II) diagonalises up to the two end samples: the
// stencil's outer taps read x[-2] -> x[0] under clamping, where the transform's mirror reads
// x[1]. With that mirror instead, the system splits into one banded system per cosine mode
// across the other axis (bandwidth 2), which is exact and takes O(n log n). That solve is the
// preconditioner of restarted GMRES (plane/gmres) on the true clamped system; the two differing
// rows are a low- rank change, and the iteration reaches rounding level in a few tens of steps.
// Memory is a few dozen planes, where a sparse LU of a strip many samples wide fills in to hundreds
// of values per unknown.
#pragma once

#include <cstdint>
#include <memory>
#include <span>
#include <vector>

#include "plane/fftw_plan.h"
#include "plane/gmres.h"

namespace marlith {

class ThinPlateCosineSolver {
 public:
  // Returns a solver when the width x height weight plane is constant along its rows or along
  // its columns and every banded system of the preconditioner factorises, and nothing
  // otherwise. threads: threads for the transforms and passes (0: every core). Throws
  // marlith::Error when FFTW cannot plan.
  static std::unique_ptr<ThinPlateCosineSolver> TryCreate(std::span<const double> weights,
                                                          int32_t width, int32_t height,
                                                          int threads = 0);
  ~ThinPlateCosineSolver();
  ThinPlateCosineSolver(const ThinPlateCosineSolver&) = delete;
  ThinPlateCosineSolver& operator=(const ThinPlateCosineSolver&) = delete;

  // Solves (B + diag(w)) x = rhs into x. Returns false, leaving x undefined, when the iteration
  // does not reach the tolerance, so the caller can solve another way.
  bool Solve(std::span<const double> rhs, std::span<double> x) const;

  // Iterations the last Solve took (for the tests and benchmarks).
  int lastIterations() const { return lastIterations_; }

 private:
  ThinPlateCosineSolver() = default;
  void ApplySystem(const double* x, double* y) const;
  void ApplyPreconditioner(const double* r, double* z) const;

  int32_t width_ = 0, height_ = 0;
  // Lengths of the transformed axis (the weights are constant along it) and the banded one.
  int32_t transformLength_ = 0, bandLength_ = 0;
  bool weightsAlongX_ = false;  // the weights change along x (constant down columns)
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
