// Deconvolution with a data term that knows which samples to trust: every sample has its own
// weight (its noise variance, a user's mask), may be a bound rather than a value (a clipped
// highlight is at least as bright as recorded) or not be observed at all (beyond the frame),
// or may count photons (Poisson). The problem
//
//   minimise  lambda * sum_i f_i((K x)_i) + sum_j phi((grad x)_j)   (x >= 0 when asked)
//
// is split twice: the blurred image u = K x is a variable of its own, solved sample by sample
// and tied to K x by ADMM (Almeida and Figueiredo, 2013), and the gradients are split off in the
// half-quadratic way with a penalty beta that doubles each outer round. The image step stays
// one division in the frequency domain:
//
//   (|K|^2 + gamma |D|^2 + eta) X = conj(K) F(u - d) + F(gamma D^T psi + eta (z - e)),
//   gamma = beta / (lambda rho).
//
// Planes (y, z = 1) and volumes alike; the working size is periodic, so samples the data do not
// reach (a margin around the frame) are restored without being observed.
#pragma once

#include <cstdint>
#include <functional>
#include <limits>
#include <memory>
#include <span>
#include <vector>

#include "plane/fftw_plan.h"
#include "plane/volume_transform.h"

namespace marlith {

// Weight codes of samples that bound the blurred value instead of observing it.
inline constexpr float kLowerBoundSample = -1.0f;  // (K x)_i >= y_i (clipped at full scale)
inline constexpr float kUpperBoundSample = -2.0f;  // (K x)_i <= y_i (clipped at black)

// The two-piece prior on a gradient value g: k |g| up to l, a g^2 + b beyond, b = k l - a l^2
// so that the pieces meet.
struct GradientPrior {
  double slope = 1.0;        // k
  double curvature = 1e-4;   // a
  double threshold = 0.5;    // l
  double Offset() const { return slope * threshold - curvature * threshold * threshold; }
};

// argmin_p 1/2 (p - g)^2 + t phi(p) for the prior phi: the lower-energy candidate of its
// two pieces.
inline double ShrinkGradient(double g, double t, double k, double a, double b, double l) {
  const double magnitude = g < 0 ? -g : g;
  // Up to l the linear piece always wins (the quadratic piece's candidate is then l, whose energy
  // exceeds the linear one's by (l - |g| + t k)^2 / 2 or more), and nearly every gradient of an
  // image lies there: its candidate alone, without the division and the two energies.
  if (magnitude <= l) {
    const double p = magnitude - t * k > 0 ? magnitude - t * k : 0;
    return g < 0 ? -p : p;
  }
  double p1 = magnitude - t * k;
  p1 = p1 < 0 ? 0 : (p1 > l ? l : p1);
  double p2 = magnitude / (1.0 + 2.0 * t * a);
  p2 = p2 < l ? l : p2;
  const double e1 = 0.5 * (p1 - magnitude) * (p1 - magnitude) + t * k * p1;
  const double e2 = 0.5 * (p2 - magnitude) * (p2 - magnitude) + t * (a * p2 * p2 + b);
  const double p = e2 < e1 ? p2 : p1;
  return g < 0 ? -p : p;
}

struct SplitSolveSettings {
  enum class Data { kGaussian, kPoisson };
  Data data = Data::kGaussian;
  // The data term's weight against the prior (0.05 / the scaled noise strength).
  double lambda = 1000.0;
  // kPoisson: f_i(u) = c w_i (u - (y_i + s) log(u + s)), the shifted Poisson likelihood of counts
  // with read noise (s: its variance, in sample units), c scaling the counts to the weights of
  // the Gaussian term (c = sigma0^2 times the counts per sample unit).
  double poissonScale = 1.0;
  double poissonShift = 0.0;
  // The ADMM penalty of u = K x, relative to lambda.
  double rho = 1.0;
  // Non-negative results: the penalty of the split x = z >= 0, relative to lambda rho; 0: off.
  double positivity = 0.0;
  // Weight of the differences along z against those along x and y (a volume's voxel aspect:
  // the xy sample spacing over the z step).
  double zWeight = 1.0;
  GradientPrior prior;
  double betaStart = 1.0;
  double betaFactor = 2.0;
  double betaCap = 1048576.0;
  double tolerance = 0.0005;  // an outer round stops when the relative change falls below
                              // (beta_max / beta)^2 times this
  int maxInnerRounds = 25;
};

class SplitDeconvSolver {
 public:
  // The working size and a kernel (kernelSize, row-major, slices after one another) no larger
  // than it, whose sample (width / 2, height / 2, depth / 2) is its origin. threads: threads for
  // each transform and pass. Throws marlith::Error for a kernel larger than the working size.
  SplitDeconvSolver(VolumeSize size, std::span<const double> kernel, VolumeSize kernelSize,
                    int threads);
  ~SplitDeconvSolver();

  // Restores estimate (Samples() values: in, the starting point; out, the result) from the
  // observed samples y under per-sample weights (>= 0, or a bound code above). Every array is
  // compact, width values a row; estimate may be the observed array (it is written only at the
  // end). Reuses the working planes of earlier solves.
  void Solve(std::span<const double> observed, std::span<const float> weights,
             std::span<double> estimate, const SplitSolveSettings& settings);

  // Called after every inner round with the fraction of the solve done; may throw to cancel.
  std::function<void(double)> progress;

  struct Stats {
    int outerRounds = 0, innerRounds = 0;
  };
  Stats lastSolve;

  VolumeSize size() const { return size_; }

 private:
  void InitialiseState(std::span<const double> estimate);

  VolumeSize size_;
  int threads_;
  std::unique_ptr<VolumeTransform> transform_;
  FftwBuffer<std::complex<double>> kernelSpectrum_;
  // 4 sin^2(pi f / n) along each axis: |D|^2 = byX[u] + byY[v] + zWeight^2 byZ[w].
  std::vector<double> powerX_, powerY_, powerZ_;
  // Padded working planes: the estimate and its blur, the spectra of a round (which end it as the
  // next estimate and blur), the scaled duals of u = K x and of x = z.
  FftwBuffer<double> x_, blurred_, first_, second_, dataDual_, positivityDual_;
};

}  // namespace marlith
