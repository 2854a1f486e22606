#include "plane/split_deconv_solver.h"

#include <algorithm>
#include <cmath>
#include <numbers>
#include <string>

#include "marlith/error.hpp"
#include "plane/worker_pool.h"

namespace marlith {

namespace {

using Complex = std::complex<double>;

// 4 sin^2(pi f / n) for f in [0, count): the squared magnitude of the spectrum of a forward
// difference along an axis of n samples.
std::vector<double> DifferencePower(int n, int count) {
  std::vector<double> power(count);
  for (int f = 0; f < count; ++f) {
    const double s = std::sin(std::numbers::pi * f / n);
    power[f] = 4.0 * s * s;
  }
  return power;
}

// The data step for one sample: u = argmin f_i(u) + rho / 2 (u - v)^2.
struct GaussianProx {
  double rho;
  double operator()(double v, double y, float w) const {
    if (w >= 0.0f) return (w * y + rho * v) / (w + rho);
    if (w == kLowerBoundSample) return v < y ? y : v;
    return v > y ? y : v;  // kUpperBoundSample
  }
};

// c w (u - (y + s) log(u + s)) + rho / 2 (u - v)^2: with p = u + s the positive root of
// rho p^2 + (c w - rho (v + s)) p - c w (y + s) = 0.
struct PoissonProx {
  double rho, scale, shift;
  double operator()(double v, double y, float w) const {
    if (w <= 0.0f) return v;
    const double c = scale * w;
    const double q = rho * (v + shift) - c;
    const double counts = (y > 0.0 ? y : 0.0) + shift;
    return (q + std::sqrt(q * q + 4.0 * rho * c * counts)) / (2.0 * rho) - shift;
  }
};

}  // namespace

SplitDeconvSolver::SplitDeconvSolver(VolumeSize size, std::span<const double> kernel,
                                     VolumeSize kernelSize, int threads)
    : size_(size), threads_(ResolveThreads(threads)) {
  if (kernelSize.width > size.width || kernelSize.height > size.height ||
      kernelSize.depth > size.depth) {
    throw Error("the kernel (" + std::to_string(kernelSize.width) + " x " +
                std::to_string(kernelSize.height) + " x " + std::to_string(kernelSize.depth) +
                ") is larger than the working size (" + std::to_string(size.width) + " x " +
                std::to_string(size.height) + " x " + std::to_string(size.depth) + ")");
  }
  transform_ = std::make_unique<VolumeTransform>(size, threads_);
  const size_t padded = size.PaddedSamples(), rowLength = size.PaddedRowLength();
  for (auto* plane : {&x_, &blurred_, &first_, &second_, &dataDual_})
    *plane = AllocateFftwBuffer<double>(padded);

  // The kernel with its origin sample moved to the volume's origin, wrapping around.
  double* k = first_.get();
  std::fill_n(k, padded, 0.0);
  for (int z = 0; z < kernelSize.depth; ++z)
    for (int y = 0; y < kernelSize.height; ++y)
      for (int x = 0; x < kernelSize.width; ++x) {
        const int wx = (x - kernelSize.width / 2 + size.width) % size.width;
        const int wy = (y - kernelSize.height / 2 + size.height) % size.height;
        const int wz = (z - kernelSize.depth / 2 + size.depth) % size.depth;
        k[(static_cast<size_t>(wz) * size.height + wy) * rowLength + wx] =
            kernel[(static_cast<size_t>(z) * kernelSize.height + y) * kernelSize.width + x];
      }
  transform_->Forward(k);
  kernelSpectrum_ = AllocateFftwBuffer<Complex>(size.SpectrumSize());
  std::copy_n(reinterpret_cast<const Complex*>(k), size.SpectrumSize(), kernelSpectrum_.get());
  powerX_ = DifferencePower(size.width, size.width / 2 + 1);
  powerY_ = DifferencePower(size.height, size.height);
  powerZ_ = DifferencePower(size.depth, size.depth);
}

SplitDeconvSolver::~SplitDeconvSolver() = default;

void SplitDeconvSolver::InitialiseState(std::span<const double> estimate) {
  const size_t rowLength = size_.PaddedRowLength();
  const int width = size_.width;
  const double scale = 1.0 / static_cast<double>(size_.Samples());
  RunParallelRanges(static_cast<std::ptrdiff_t>(size_.Rows()), threads_,
                    [&](std::ptrdiff_t first, std::ptrdiff_t last) {
                      for (std::ptrdiff_t r = first; r < last; ++r) {
                        const double* in = estimate.data() + r * width;
                        std::copy_n(in, width, x_.get() + r * rowLength);
                        std::copy_n(in, width, blurred_.get() + r * rowLength);
                        std::fill_n(dataDual_.get() + r * rowLength, rowLength, 0.0);
                      }
                    });
  // The starting estimate's blur: K x0 through the spectrum.
  transform_->Forward(blurred_.get());
  auto* spectrum = reinterpret_cast<Complex*>(blurred_.get());
  const Complex* kernel = kernelSpectrum_.get();
  RunParallelRanges(static_cast<std::ptrdiff_t>(size_.SpectrumSize()), threads_,
                    [&](std::ptrdiff_t first, std::ptrdiff_t last) {
                      for (std::ptrdiff_t i = first; i < last; ++i)
                        spectrum[i] *= kernel[i] * scale;
                    });
  transform_->Inverse(blurred_.get());
}

void SplitDeconvSolver::Solve(std::span<const double> observed, std::span<const float> weights,
                              std::span<double> estimate, const SplitSolveSettings& s) {
  const VolumeSize size = size_;
  const size_t rowLength = size.PaddedRowLength();
  const int width = size.width, height = size.height, depth = size.depth;
  const bool positivity = s.positivity > 0.0;
  if (positivity && !positivityDual_) positivityDual_ = AllocateFftwBuffer<double>(size.PaddedSamples());
  InitialiseState(estimate);
  if (positivity) std::fill_n(positivityDual_.get(), size.PaddedSamples(), 0.0);

  const double k = s.prior.slope, a = s.prior.curvature, b = s.prior.Offset(),
               l = s.prior.threshold;
  const double zWeight = depth > 1 ? s.zWeight : 0.0;
  const double betaMax = std::min(s.betaCap, 100.0 * s.lambda);
  int outerTotal = 0;
  for (double beta = s.betaStart; beta <= betaMax; beta *= s.betaFactor) ++outerTotal;
  const double inverseCount = 1.0 / static_cast<double>(size.Samples());
  const GaussianProx gaussian{s.rho};
  const PoissonProx poisson{s.rho, s.poissonScale, s.poissonShift};

  lastSolve = {};
  int outer = 0;
  for (double beta = s.betaStart; beta <= betaMax; beta *= s.betaFactor, ++outer) {
    const double t = 1.0 / beta;
    const double gamma = beta / (s.lambda * s.rho);
    const double eta = positivity ? s.positivity : 0.0;
    const double threshold = (betaMax / beta) * (betaMax / beta) * s.tolerance;
    for (int inner = 0; inner < s.maxInnerRounds; ++inner) {
      // The per-sample steps: the gradients shrunk under the prior and their adjoint (with the
      // positivity split's share) into the second array; the data step and its dual into the
      // first. Each job keeps the previous row's shrunk vertical differences.
      const double* x = x_.get();
      RunParallelJobs(std::min<int>(threads_, static_cast<int>(size.Rows())), threads_, [&](int job) {
        const int jobs = std::min<int>(threads_, static_cast<int>(size.Rows()));
        const std::ptrdiff_t firstRow = JobBegin(static_cast<int>(size.Rows()), job, jobs);
        const std::ptrdiff_t lastRow = JobBegin(static_cast<int>(size.Rows()), job + 1, jobs);
        std::vector<double> above(width), current(width);
        for (std::ptrdiff_t r = firstRow; r < lastRow; ++r) {
          const int yy = static_cast<int>(r % height), zz = static_cast<int>(r / height);
          const size_t sliceRow = static_cast<size_t>(zz) * height;
          const double* row = x + r * rowLength;
          const double* below = x + (sliceRow + (yy + 1) % height) * rowLength;
          if (r == firstRow || yy == 0) {
            const double* up = x + (sliceRow + (yy + height - 1) % height) * rowLength;
            for (int i = 0; i < width; ++i)
              above[i] = ShrinkGradient(row[i] - up[i], t, k, a, b, l);
          }
          const double* next = nullptr;
          const double* previous = nullptr;
          if (depth > 1) {
            next = x + (((zz + 1) % depth) * static_cast<size_t>(height) + yy) * rowLength;
            previous = x + (((zz + depth - 1) % depth) * static_cast<size_t>(height) + yy) * rowLength;
          }
          double left = ShrinkGradient(row[0] - row[width - 1], t, k, a, b, l);
          double* adjoint = second_.get() + r * rowLength;
          double* dual = positivity ? positivityDual_.get() + r * rowLength : nullptr;
          for (int i = 0; i < width; ++i) {
            const double right = row[i + 1 < width ? i + 1 : 0];
            const double px = ShrinkGradient(right - row[i], t, k, a, b, l);
            const double py = ShrinkGradient(below[i] - row[i], t, k, a, b, l);
            double sum = left - px + above[i] - py;
            if (depth > 1) {
              const double pz = ShrinkGradient(zWeight * (next[i] - row[i]), t, k, a, b, l);
              const double pzBefore =
                  ShrinkGradient(zWeight * (row[i] - previous[i]), t, k, a, b, l);
              sum += zWeight * (pzBefore - pz);
            }
            current[i] = py;
            left = px;
            double value = gamma * sum;
            if (dual) {
              const double shifted = row[i] + dual[i];
              const double kept = shifted > 0.0 ? shifted : 0.0;
              dual[i] = shifted - kept;
              value += eta * (kept - dual[i]);
            }
            adjoint[i] = value;
          }
          std::swap(above, current);

          // The data step: u = prox(K x + d), d = K x + d - u, and u - d for the image step.
          const double* blur = blurred_.get() + r * rowLength;
          double* d = dataDual_.get() + r * rowLength;
          double* target = first_.get() + r * rowLength;
          const double* y = observed.data() + r * width;
          const float* w = weights.data() + r * width;
          auto dataStep = [&](const auto& prox) {
            for (int i = 0; i < width; ++i) {
              const double v = blur[i] + d[i];
              const double u = prox(v, y[i], w[i]);
              d[i] = v - u;
              target[i] = u - d[i];
            }
          };
          if (s.data == SplitSolveSettings::Data::kPoisson)
            dataStep(poisson);
          else
            dataStep(gaussian);
        }
      });

      transform_->Forward(first_.get());
      transform_->Forward(second_.get());
      // The image step, with 1 / N folded in: X = (conj(K) F1 + F2) / den into the first array,
      // K X into the second.
      auto* f1 = reinterpret_cast<Complex*>(first_.get());
      auto* f2 = reinterpret_cast<Complex*>(second_.get());
      const Complex* kernel = kernelSpectrum_.get();
      const int halfWidth = width / 2 + 1;
      RunParallelRanges(static_cast<std::ptrdiff_t>(size.Rows()), threads_,
                        [&](std::ptrdiff_t first, std::ptrdiff_t last) {
                          for (std::ptrdiff_t r = first; r < last; ++r) {
                            const double rowPower =
                                powerY_[r % height] + zWeight * zWeight * powerZ_[r / height];
                            const size_t base = static_cast<size_t>(r) * halfWidth;
                            for (int u = 0; u < halfWidth; ++u) {
                              const size_t i = base + u;
                              const Complex kv = kernel[i];
                              const double den =
                                  std::norm(kv) + gamma * (powerX_[u] + rowPower) + eta;
                              const Complex value =
                                  (std::conj(kv) * f1[i] + f2[i]) * (inverseCount / den);
                              f1[i] = value;
                              f2[i] = kv * value;
                            }
                          }
                        });
      transform_->Inverse(first_.get());
      transform_->Inverse(second_.get());

      // The relative change of the estimate decides whether the outer round goes on.
      const int jobs = std::min<int>(threads_, static_cast<int>(size.Rows()));
      std::vector<double> change(jobs), norm(jobs);
      RunParallelJobs(jobs, threads_, [&](int job) {
        double c = 0.0, n = 0.0;
        for (std::ptrdiff_t r = JobBegin(static_cast<int>(size.Rows()), job, jobs);
             r < JobBegin(static_cast<int>(size.Rows()), job + 1, jobs); ++r) {
          const double* now = first_.get() + r * rowLength;
          const double* before = x_.get() + r * rowLength;
          for (int i = 0; i < width; ++i) {
            const double delta = now[i] - before[i];
            c += delta * delta;
            n += now[i] * now[i];
          }
        }
        change[job] = c;
        norm[job] = n;
      });
      double totalChange = 0.0, totalNorm = 0.0;
      for (int j = 0; j < jobs; ++j) totalChange += change[j], totalNorm += norm[j];
      std::swap(x_, first_);
      std::swap(blurred_, second_);
      ++lastSolve.innerRounds;
      if (progress)
        progress((outer + static_cast<double>(inner + 1) / s.maxInnerRounds) / outerTotal);
      const double ratio = totalNorm > 0.0 ? std::sqrt(totalChange / totalNorm) : 0.0;
      if (ratio < threshold) break;
    }
    ++lastSolve.outerRounds;
  }
  RunParallelRanges(static_cast<std::ptrdiff_t>(size.Rows()), threads_,
                    [&](std::ptrdiff_t first, std::ptrdiff_t last) {
                      for (std::ptrdiff_t r = first; r < last; ++r)
                        std::copy_n(x_.get() + r * rowLength, width, estimate.data() + r * width);
                    });
}

}  // namespace marlith
