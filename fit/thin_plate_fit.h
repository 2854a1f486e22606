// Weighted thin-plate fits: the smooth plane x that balances closeness to data d, weighted per
// pixel by w, against the biharmonic energy of x, from (B + diag(w)) x = w (.) d.
#pragma once

#include <cstdint>
#include <memory>
#include <span>
#include <vector>

namespace marlith {

// A sparse matrix in compressed rows, indices counting from 1.
struct SparseMatrixCSR {
  int32_t nonZeros = 0;
  int32_t rows = 0;
  int32_t columns = 0;
  std::vector<double> values;
  std::vector<int32_t> columnIndices;  // from 1
  std::vector<int32_t> rowStarts;      // rows + 1 entries, from 1
};

// The matrix of filterPlane with the given kernel and orientation and edge replication over a
// width x height plane: row r holds, in the order met, the summed coefficients of the pixels
// that output pixel r reads; taps clamped onto the same pixel are merged and a merged
// coefficient of zero is left out.
SparseMatrixCSR buildFilterMatrix(std::span<const double> kernel, int32_t kernelWidth,
                                  int32_t kernelHeight, int32_t orientation, int32_t width,
                                  int32_t height);

struct ThinPlateRequest {
  std::span<const double> data;     // d, width x height
  std::span<double> output;         // x; may be the same plane as data
  std::span<const double> weights;  // w
  int32_t width = 0;
  int32_t height = 0;
};

class ThinPlateStripSolver;

// How ThinPlateSystem solves.
enum class ThinPlateMethod {
  // The cosine-preconditioned iteration when the weights vary along one axis only (the seam
  // strips), falling back on the sparse LU if it does not converge; the LU otherwise.
  kAutomatic,
  kDirect,  // always UMFPACK's sparse LU
};

// (B + diag(w)) prepared once for a weight plane, for fits of several data planes with the
// same weights (the colour channels of one image).
class ThinPlateSystem {
 public:
  // Prepares the system for a width x height weight plane (copied). Throws marlith::Error
  // when every weight is zero (the stencil alone annihilates constants) or when the solver
  // underneath reports a failure or a singular system. threads: threads for the iteration's
  // transforms and passes (0: every core).
  ThinPlateSystem(std::span<const double> weights, int32_t width, int32_t height,
                  ThinPlateMethod method = ThinPlateMethod::kAutomatic, int threads = 0);
  ~ThinPlateSystem();
  ThinPlateSystem(const ThinPlateSystem&) = delete;
  ThinPlateSystem& operator=(const ThinPlateSystem&) = delete;

  // Solves for data d into output (which may be d itself); both width x height. Several data
  // planes may be solved with one system, one after the other (the system's work planes are
  // shared); each result equals a fresh fitThinPlate.
  void Solve(std::span<const double> data, std::span<double> output) const;

  // The iterations the last Solve took, -1 when it solved directly (for the tests and
  // benchmarks).
  int iterations() const { return iterations_; }

 private:
  struct Factorisation;
  // The sparse LU, made in the constructor or, after the iteration failed, on first need.
  mutable std::unique_ptr<Factorisation> factorisation_;
  std::unique_ptr<ThinPlateStripSolver> strip_;
  std::vector<double> weights_;
  int32_t width_ = 0, height_ = 0;
  mutable int iterations_ = -1;
};

// One fit; returns 0. Throws marlith::Error when the system cannot be solved.
int32_t fitThinPlate(const ThinPlateRequest& request);

}  // namespace marlith
