// The bank of small filter kernels shared by the surface fitting and the filters: built once
// from constant tables, looked up by name or by smoothing id, released at the end.
#pragma once

#include <cstdint>
#include <span>

namespace marlith {

// A kernel of the bank: row-major values, width first. An empty kernel has no values.
struct KernelDescriptor {
  std::span<const double> kernel;
  int32_t width = 0;
  int32_t height = 0;
  bool empty() const { return kernel.empty(); }
};

enum class BankKernel {
  kForwardDifferenceX,  // 3 x 1: 0, 1, -1
  kForwardDifferenceY,  // 1 x 3: 0, 1, -1
  kBinomialRow3,        // 3 x 1: 1/4, 1/2, 1/4
  kBinomialColumn3,
  kBinomialRow5,  // 5 x 1: (1, 4, 6, 4, 1) / 16
  kBinomialColumn5,
  kLaplacian,  // 3 x 3: 0 1 0 / 1 -4 1 / 0 1 0
  kThinPlate,  // 5 x 5 biharmonic stencil
  kGaussian7Sigma125,
  kGaussian7Sigma15,
  kGaussian7Sigma14,
  kGaussian7Sigma085,
  kGaussian11Sigma17,
  kGaussian11Sigma12,
  kGaussian11Sigma115,
  kGaussian15Sigma24,
  kCross,  // 3 x 3: centre 1/2, edge neighbours 1/8, corners 0
};

// Builds the bank (once; later calls do nothing until it is released). Thread-safe.
void buildKernelBank();
// Frees every kernel and clears the built flag.
void releaseKernelBank();
bool kernelBankBuilt();

// Views returned below point into the bank: they stay valid until releaseKernelBank.
// A named kernel; the bank must be built.
KernelDescriptor bankKernel(BankKernel which);

// The kernel stored under a smoothing id: 1 (3 x 3 binomial), 2 (5 x 5 binomial), 3 to 6
// (Gaussians of 9 x 9 and 17 x 17), and 1024, under which no kernel is ever stored (an empty
// descriptor). Any other id has no entry: the result is null.
const KernelDescriptor* smoothingKernel(int32_t id);

// The biharmonic (thin-plate) stencil, the 5-point Laplacian applied twice, by its taps' places
// relative to the centre. The one definition: the bank's 5 x 5 table and the strip solver's
// operator and modes are all made from these four values.
struct ThinPlateStencil {
  static constexpr double kCentre = 20.0;     // (0, 0)
  static constexpr double kNeighbour = -8.0;  // (+-1, 0) and (0, +-1)
  static constexpr double kDiagonal = 2.0;    // (+-1, +-1)
  static constexpr double kFar = 1.0;         // (+-2, 0) and (0, +-2)
};

// The stencil as a 5 x 5 table: 0 0 1 0 0 / 0 2 -8 2 0 / 1 -8 20 -8 1 / ...
std::span<const double> thinPlateStencil();

}  // namespace marlith
