// Re-fitting a blur kernel from a latent (deblurred) image and the observed image: least
// squares with an L1 penalty on the kernel's two first differences, solved by half-quadratic
// splitting inside an active-set loop that keeps the kernel non-negative.
#pragma once

#include <cstdint>
#include <functional>
#include <span>
#include <vector>

#include "refine/numeric_kernels.h"

namespace marlith {

struct KernelEstimateSettings {
  double scaleValue = 0.1;      // the data term is scaled by ((20000 / scaleValue) / sum Y^2)^2
  double sparsityWeight = 0.7;  // lambda of the L1 penalty
  // Called between the fit's steps (row blocks of the normal equations, rounds of the solve),
  // some tens of milliseconds apart at most; may throw to cancel the fit. May be empty.
  std::function<void()> checkpoint;
};

enum class KernelEstimateStatus {
  kRefined,
  kNoPositiveEntry,  // the fit left nothing above zero; the output is the initial kernel
};

// Fits a kw x kh kernel so that latent convolved with it matches observed (both W x H per
// channel, channels one after another) inside margins of ceil(4.5 kw) columns and ceil(4.5 kh)
// rows, starting from initialKernel. The result is written to outputKernel (which may be the
// initial kernel's own array) rotated by 180 degrees and normalised to unit sum.
KernelEstimateStatus reestimateKernel(std::span<const double> observed,
                                      std::span<const double> latent, int32_t W, int32_t H,
                                      int32_t channels, std::span<const double> initialKernel,
                                      int32_t kw, int32_t kh, std::span<double> outputKernel,
                                      const KernelEstimateSettings& settings = {});

// The pieces, exposed for tests.

// K x K convolution matrix over a gw x gh grid of a fw x fh filter (applied rotated by 180
// degrees, taps below 1e-10 in magnitude skipped, taps outside the grid clamped onto it).
std::vector<double> convolutionMatrix(std::span<const double> filter, int32_t fw, int32_t fh,
                                      int32_t gw, int32_t gh);

// Normal equations N (K x K, symmetric) and h (K) of the fit over the margins' interior.
// checkpoint (may be empty) is called between row blocks.
void buildNormalEquations(std::span<const double> observed, std::span<const double> latent,
                          int32_t W, int32_t H, int32_t channels, int32_t kw, int32_t kh,
                          std::vector<double>& N, std::vector<double>& h,
                          const std::function<void()>& checkpoint = {});

// One reduced problem: the quadratic data term x^T M x - 2 r^T x with an L1 penalty on D1 x and
// D2 x, by half-quadratic splitting with beta doubling from 1 to min(2^21, 100 x 0.05 / lambda);
// at most budget / 2 rounds per beta (budget < 0 means 60). M, D1, D2 are n x n. checkpoint (may
// be empty) is called before each round.
std::vector<double> solveSparseKernelProblem(const DenseMatrixView& M, std::span<const double> r,
                                             std::span<const double> start, int32_t budget,
                                             double lambda, const DenseMatrixView& D1,
                                             const DenseMatrixView& D2,
                                             const std::function<void()>& checkpoint = {});

}  // namespace marlith
