#include "engine/noise_estimate.h"

#include <algorithm>
#include <cmath>
#include <cstddef>
#include <exception>
#include <limits>
#include <utility>
#include <vector>

#include "plane/worker_pool.h"

namespace marlith {
namespace {

constexpr int kPatch = 7;
constexpr int kDim = kPatch * kPatch;
// Fewer patches than this and the sample covariance's noise eigenvalues spread too widely
// (by about 2 sqrt(kDim / count) of their mean) to be read: the plane gets the fallback.
constexpr size_t kMinPatches = 16 * kDim;
// More patches than this add time, not accuracy: larger planes are sampled on a coarser grid.
constexpr size_t kMaxPatches = size_t{1} << 14;
// Variance of rounding to the nearest of 256 levels: uniform error over 1/255.
constexpr double kEightBitRoundingVariance = 1.0 / (12.0 * 255.0 * 255.0);
// median |x| / kMadToSigma is the standard deviation of zero-mean Gaussian samples.
constexpr double kMadToSigma = 0.6744897501960817;

// The rule strength = kStrengthScale x level^kStrengthPower: `noise_bench ... calibrate` fits
// 67.68 x level^1.3685 to the best strengths on its calibration images (Levin im1, im2 and five
// photographs, 0.5 to 5 % noise); the best strengths lie within 3 % of it.
constexpr double kStrengthScale = 67.7;
constexpr double kStrengthPower = 1.369;
constexpr double kLowestLevel = 0.0025;
constexpr double kHighestLevel = 0.1;

// Weak-texture patches: in a patch of white noise of variance v alone, the sum of the squared
// horizontal and vertical neighbour differences (84 of them in 7 x 7) has mean 168 v and is
// spread nearly as a Gamma of shape 18.47 (the quadratic form's trace is 168, its square's trace
// 764), whose 99.9th percentile is 315 v. A patch above that holds structure the noise cannot
// explain, and is left out of the covariance.
constexpr double kNoiseEnergyQuantile = 315.0;
// Rounds of choosing the weak patches with the latest variance and estimating it again; the
// bench's images settle (a change under 0.1 %) in two to six, a few alternating between two
// close selections until this limit.
constexpr int kSelectionRounds = 8;

// The sum of squared horizontal and vertical neighbour differences of the patch at (x, y).
double DifferenceEnergy(const double* plane, int width, int x, int y) {
  double e = 0.0;
  for (int j = 0; j < kPatch; ++j) {
    const double* row = plane + static_cast<size_t>(y + j) * width + x;
    for (int i = 0; i < kPatch; ++i) {
      if (i + 1 < kPatch) e += (row[i + 1] - row[i]) * (row[i + 1] - row[i]);
      if (j + 1 < kPatch) e += (row[i + width] - row[i]) * (row[i + width] - row[i]);
    }
  }
  return e;
}

// Eigenvalues of the symmetric n x n matrix a (row-major, both triangles filled) by cyclic
// Jacobi rotations, which find small eigenvalues to a precision relative to themselves rather
// than to the largest one: here the small ones are the noise. Unsorted.
std::vector<double> SymmetricEigenvalues(std::vector<double> a, int n) {
  auto at = [&](int r, int c) -> double& { return a[static_cast<size_t>(r) * n + c]; };
  for (int sweep = 0; sweep < 60; ++sweep) {
    double off = 0.0, diag = 0.0;
    for (int p = 0; p < n; ++p) {
      diag += at(p, p) * at(p, p);
      for (int q = p + 1; q < n; ++q) off += at(p, q) * at(p, q);
    }
    if (!(off > 1e-30 * diag)) break;  // also ends on NaN
    for (int p = 0; p < n; ++p)
      for (int q = p + 1; q < n; ++q) {
        const double apq = at(p, q);
        if (apq == 0.0) continue;
        // Rotate by the angle phi with cot(2 phi) = theta, which zeroes a(p, q).
        const double theta = (at(q, q) - at(p, p)) / (2.0 * apq);
        const double t =
            std::fabs(theta) > 1e150
                ? 0.5 / theta
                : std::copysign(1.0, theta) / (std::fabs(theta) + std::sqrt(theta * theta + 1.0));
        const double c = 1.0 / std::sqrt(t * t + 1.0), s = t * c;
        for (int k = 0; k < n; ++k) {
          const double akp = at(k, p), akq = at(k, q);
          at(k, p) = c * akp - s * akq;
          at(k, q) = s * akp + c * akq;
        }
        for (int k = 0; k < n; ++k) {
          const double apk = at(p, k), aqk = at(q, k);
          at(p, k) = c * apk - s * aqk;
          at(q, k) = s * apk + c * aqk;
        }
      }
  }
  std::vector<double> values(n);
  for (int i = 0; i < n; ++i) values[i] = at(i, i);
  return values;
}

// Sums of the centred samples of a set of patches and of their products (upper triangle), from
// which the set's covariance follows; patches can be added and taken away, so that a new selection
// costs only the patches that changed sides.
class PatchMoments {
 public:
  PatchMoments() : sum_(kDim, 0.0), products_(kDim * kDim, 0.0) {}

  // sign +1 adds the patch at (x, y), -1 takes it away.
  void Add(const double* plane, int width, double centre, int x, int y, double sign) {
    double patch[kDim];
    for (int j = 0; j < kPatch; ++j)
      for (int i = 0; i < kPatch; ++i)
        patch[j * kPatch + i] = plane[static_cast<size_t>(y + j) * width + x + i] - centre;
    for (int r = 0; r < kDim; ++r) {
      const double v = sign * patch[r];
      sum_[r] += v;
      double* row = products_.data() + r * kDim;
      for (int c = r; c < kDim; ++c) row[c] += v * patch[c];
    }
    count_ += sign > 0 ? 1 : -1;
  }

  // The noise variance: the mean of the largest set of smallest eigenvalues of the covariance
  // whose mean is also its median (as many above as below).
  double NoiseVariance() const {
    const double n = static_cast<double>(count_);
    std::vector<double> covariance(kDim * kDim);
    for (int r = 0; r < kDim; ++r)
      for (int c = r; c < kDim; ++c)
        covariance[r * kDim + c] = covariance[c * kDim + r] =
            products_[r * kDim + c] / n - (sum_[r] / n) * (sum_[c] / n);
    std::vector<double> eigen = SymmetricEigenvalues(std::move(covariance), kDim);
    for (double& e : eigen) e = std::max(e, 0.0);  // rounding can leave tiny negatives
    std::sort(eigen.begin(), eigen.end());
    for (int k = kDim; k > 1; --k) {
      double mean = 0.0;
      for (int i = 0; i < k; ++i) mean += eigen[i];
      mean /= k;
      int above = 0, below = 0;
      for (int i = 0; i < k; ++i) {
        above += eigen[i] > mean;
        below += eigen[i] < mean;
      }
      if (above == below) return mean;
    }
    return eigen[0];
  }

 private:
  std::vector<double> sum_, products_;
  std::ptrdiff_t count_ = 0;
};

// Noise variance of one plane: first from all its patches, then, repeatedly, from the patches
// whose structure is weak enough for noise of that variance alone to explain it (the weak-texture
// selection of Liu, Tanaka and Okutomi, 2013): texture the blur leaves, such as grain, fur or
// gravel, would otherwise fill the smallest eigenvalues too and read as noise. When fewer than
// kMinPatches patches are weak, the kMinPatches weakest serve; when all are, the latest estimate
// stands. Each round's moments come from the last round's, adding the patches that joined and
// taking away those that left, or afresh when that is fewer patches. Assumes at least
// kMinPatches patch positions.
double PatchCovarianceVariance(const double* plane, int width, int height) {
  const int nx = width - kPatch + 1, ny = height - kPatch + 1;
  int stride = 1;
  while (static_cast<size_t>((nx + stride - 1) / stride) * ((ny + stride - 1) / stride) >
         kMaxPatches)
    ++stride;
  // Centring on the plane's mean first keeps the covariance's subtraction free of cancellation.
  double centre = 0.0;
  for (size_t i = 0; i < static_cast<size_t>(width) * height; ++i) centre += plane[i];
  centre /= static_cast<double>(width) * height;

  std::vector<std::pair<int, int>> corners;
  std::vector<double> energy;
  for (int y = 0; y < ny; y += stride)
    for (int x = 0; x < nx; x += stride) {
      corners.emplace_back(x, y);
      energy.push_back(DifferenceEnergy(plane, width, x, y));
    }
  PatchMoments moments;
  for (const auto& [x, y] : corners) moments.Add(plane, width, centre, x, y, 1.0);
  double variance = moments.NoiseVariance();
  std::vector<char> chosen(corners.size(), 1);
  std::vector<size_t> order(corners.size());
  for (size_t i = 0; i < order.size(); ++i) order[i] = i;
  for (int round = 0; round < kSelectionRounds; ++round) {
    const double threshold = kNoiseEnergyQuantile * variance;
    // The weak patches come first in `order`; at least kMinPatches of them.
    const auto firstStrong = std::partition(order.begin(), order.end(),
                                            [&](size_t i) { return energy[i] <= threshold; });
    size_t count = static_cast<size_t>(firstStrong - order.begin());
    if (count == order.size()) break;
    if (count < kMinPatches) {
      std::nth_element(order.begin(), order.begin() + kMinPatches, order.end(),
                       [&](size_t a, size_t b) { return energy[a] < energy[b]; });
      count = kMinPatches;
    }
    std::vector<char> next(corners.size(), 0);
    for (size_t i = 0; i < count; ++i) next[order[i]] = 1;
    size_t changed = 0;
    for (size_t i = 0; i < corners.size(); ++i) changed += next[i] != chosen[i];
    if (changed < count) {
      for (size_t i = 0; i < corners.size(); ++i)
        if (next[i] != chosen[i])
          moments.Add(plane, width, centre, corners[i].first, corners[i].second,
                      next[i] ? 1.0 : -1.0);
    } else {
      moments = PatchMoments();
      for (size_t i = 0; i < count; ++i)
        moments.Add(plane, width, centre, corners[order[i]].first, corners[order[i]].second, 1.0);
    }
    chosen = std::move(next);
    const double nextVariance = moments.NoiseVariance();
    const bool settled = std::fabs(nextVariance - variance) <= 1e-3 * variance;
    variance = nextVariance;
    if (settled) break;
  }
  return variance;
}

double MedianOfAbsolute(std::vector<double> values) {
  for (double& v : values) v = std::fabs(v);
  const auto middle = values.begin() + values.size() / 2;
  std::nth_element(values.begin(), middle, values.end());
  return *middle;
}

// Fallback for planes too small for the patch covariance: the median absolute value of the
// 2 x 2 diagonal differences (a - b - c + d) / 2, which have the noise's variance and cancel
// constants and ramps; of the neighbour differences / sqrt 2 along a plane one sample thick.
double SmallPlaneVariance(const double* plane, int width, int height) {
  std::vector<double> differences;
  if (width >= 2 && height >= 2) {
    for (int y = 0; y + 1 < height; ++y)
      for (int x = 0; x + 1 < width; ++x) {
        const double* p = plane + static_cast<size_t>(y) * width + x;
        differences.push_back(0.5 * (p[0] - p[1] - p[width] + p[width + 1]));
      }
  } else {
    const int n = std::max(width, height);
    for (int i = 0; i + 1 < n; ++i)
      differences.push_back((plane[i + 1] - plane[i]) / std::sqrt(2.0));
  }
  if (differences.empty()) return 0.0;
  const double sigma = MedianOfAbsolute(std::move(differences)) / kMadToSigma;
  return sigma * sigma;
}

bool OnEightBitGrid(std::span<const double> samples) {
  for (double v : samples)
    if (std::fabs(v * 255.0 - std::nearbyint(v * 255.0)) > 1e-6) return false;
  return true;
}

bool AllFinite(std::span<const double> samples) {
  for (double v : samples)
    if (!std::isfinite(v)) return false;
  return true;
}

struct Planes {
  std::span<const double> samples;
  int width, height, channels;
};

// The noise variance of every plane of every image, in order (each plane one job on up to
// threads threads; the results do not depend on how many).
std::vector<double> PlaneVariances(const std::vector<Planes>& images, int threads) {
  std::vector<std::pair<const Planes*, int>> jobs;
  for (const Planes& image : images)
    for (int c = 0; c < image.channels; ++c) jobs.emplace_back(&image, c);
  std::vector<double> variances(jobs.size());
  std::vector<std::exception_ptr> failures(jobs.size());
  RunParallelJobs(static_cast<int>(jobs.size()), threads, [&](int job) {
    try {
      const Planes& image = *jobs[job].first;
      const int width = image.width, height = image.height;
      const double* plane =
          image.samples.data() + static_cast<size_t>(jobs[job].second) * width * height;
      const size_t patches = width >= kPatch && height >= kPatch
                                 ? static_cast<size_t>(width - kPatch + 1) * (height - kPatch + 1)
                                 : 0;
      variances[job] = patches >= kMinPatches ? PatchCovarianceVariance(plane, width, height)
                                              : SmallPlaneVariance(plane, width, height);
    } catch (...) {
      failures[job] = std::current_exception();
    }
  });
  for (const std::exception_ptr& failure : failures)
    if (failure) std::rethrow_exception(failure);
  return variances;
}

// The level of the channels' mean variance, less 8-bit rounding's when samples lie on its grid.
double LevelOf(std::span<const double> variances, std::span<const double> samples) {
  double variance = 0.0;
  for (double v : variances) variance += v;
  variance /= static_cast<double>(variances.size());
  if (OnEightBitGrid(samples)) variance = std::max(variance - kEightBitRoundingVariance, 0.0);
  return std::sqrt(variance);
}

}  // namespace

double EstimateNoiseLevel(std::span<const double> planes, int width, int height, int channels,
                          int threads) {
  if (width < 1 || height < 1 || channels < 1) return 0.0;
  const std::span<const double> samples =
      planes.first(static_cast<size_t>(width) * height * channels);
  if (!AllFinite(samples)) return std::numeric_limits<double>::quiet_NaN();
  const std::vector<double> variances =
      PlaneVariances({{samples, width, height, channels}}, threads);
  return LevelOf(variances, samples);
}

double NoiseStrengthForLevel(double level) {
  if (std::isnan(level)) return level;
  return kStrengthScale * std::pow(std::clamp(level, kLowestLevel, kHighestLevel), kStrengthPower);
}

double EstimateCompressedNoiseLevel(std::span<const double> planes, int width, int height,
                                    int channels, int threads) {
  const int halfWidth = width / 2, halfHeight = height / 2;
  // At least 784 patches at half resolution, as the full-resolution estimate needs.
  if (halfWidth < 34 || halfHeight < 34 || channels < 1)
    return EstimateNoiseLevel(planes, width, height, channels, threads);
  const size_t planeSize = static_cast<size_t>(width) * height;
  const std::span<const double> samples = planes.first(planeSize * channels);
  if (!AllFinite(samples)) return std::numeric_limits<double>::quiet_NaN();
  std::vector<double> half(static_cast<size_t>(halfWidth) * halfHeight * channels);
  for (int c = 0; c < channels; ++c)
    for (int y = 0; y < halfHeight; ++y)
      for (int x = 0; x < halfWidth; ++x) {
        const double* p =
            samples.data() + c * planeSize + static_cast<size_t>(2 * y) * width + 2 * x;
        half[(static_cast<size_t>(c) * halfHeight + y) * halfWidth + x] =
            0.25 * (p[0] + p[1] + p[width] + p[width + 1]);
      }
  // Both resolutions' planes at once, so that every thread has work.
  const std::vector<double> variances = PlaneVariances(
      {{samples, width, height, channels}, {half, halfWidth, halfHeight, channels}}, threads);
  const double full = LevelOf(std::span(variances).first(channels), samples);
  const double coarse = 2.0 * LevelOf(std::span(variances).subspan(channels), half);
  return full < 0.5 * coarse ? coarse : full;
}

NoiseEstimate EstimateNoise(std::span<const double> planes, int width, int height, int channels) {
  const double level = EstimateNoiseLevel(planes, width, height, channels);
  return {level, NoiseStrengthForLevel(level)};
}

}  // namespace marlith
