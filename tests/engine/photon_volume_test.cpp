// The options API's photon counts (the Poisson noise model, the camera offset, the data's own
// range) and volumes (3-D kernels, z-stacks).
#include <gtest/gtest.h>

#include <array>
#include <cmath>
#include <cstdint>
#include <optional>
#include <random>
#include <vector>

#include "marlith/deconvolve.hpp"

namespace marlith {
namespace {

// Sparse beads on a dark background: 16-bit counts over a camera offset, Poisson noise.
std::vector<uint16_t> Beads(int w, int h, double offset, double peak, unsigned seed) {
  std::mt19937 rng(seed);
  std::vector<double> light(static_cast<size_t>(w) * h, 0.0);
  for (int b = 0; b < 12; ++b) {
    const int cx = 6 + rng() % (w - 12), cy = 6 + rng() % (h - 12);
    for (int y = 0; y < h; ++y)
      for (int x = 0; x < w; ++x)
        light[y * w + x] += peak * std::exp(-((x - cx) * (x - cx) + (y - cy) * (y - cy)) / 8.0);
  }
  std::vector<uint16_t> out(light.size());
  for (size_t i = 0; i < light.size(); ++i)
    out[i] = static_cast<uint16_t>(offset + std::poisson_distribution<int>(light[i] + 1e-9)(rng));
  return out;
}

TEST(PhotonCounts, OffsetIsEstimatedOrTakenAndResultsStayAboveIt) {
  const int w = 64, h = 64;
  const auto image = Beads(w, h, 100.0, 150.0, 3);
  const double kernel[] = {1, 2, 1, 2, 4, 2, 1, 2, 1};
  struct Case {
    std::optional<double> offset;
    double reported;
  };
  for (const Case& c : {Case{std::nullopt, 100.0}, Case{90.0, 90.0}}) {
    DeconvolveOptions options;
    options.noiseModel = NoiseModel::kPoisson;
    options.offset = c.offset;
    std::vector<double> out(image.size());
    const auto report = Deconvolve(ConstImageView::Planar(image.data(), w, h), {kernel, 3, 3},
                                   ImageView::Planar(out.data(), w, h), options);
    EXPECT_NEAR(report.offset, c.reported, 0.5);
    double lowest = 1e9;
    for (double v : out) lowest = std::min(lowest, v * 65535.0);
    EXPECT_GE(lowest, c.reported - 1e-6);
    EXPECT_GT(report.noiseStrength, 0.0);
  }
  DeconvolveOptions exact;
  exact.noiseModel = NoiseModel::kPoisson;
  exact.margins = Margins::kExact;
  std::vector<uint16_t> out(image.size());
  EXPECT_THROW(Deconvolve(ConstImageView::Planar(image.data(), w, h), {kernel, 3, 3},
                          ImageView::Planar(out.data(), w, h), exact),
               Error);
}

TEST(PhotonCounts, AutomaticStrengthFollowsTheDataRangeNotTheContainer) {
  // The same 12-bit data stored as is and shifted to fill 16 bits: one strength for both.
  const int w = 80, h = 80;
  std::mt19937 rng(5);
  std::normal_distribution<double> noise(0.0, 40.0);
  std::vector<uint16_t> twelve(static_cast<size_t>(w) * h), sixteen(twelve.size());
  for (int y = 0; y < h; ++y)
    for (int x = 0; x < w; ++x) {
      const double v = 2000 + 1500 * std::sin(0.2 * x) * std::cos(0.15 * y) + noise(rng);
      twelve[y * w + x] = static_cast<uint16_t>(std::clamp(std::lround(v), 0L, 4095L));
      sixteen[y * w + x] = static_cast<uint16_t>(twelve[y * w + x] * 16);
    }
  const double kernel[] = {1, 1, 1};
  std::vector<uint16_t> out(twelve.size());
  const auto a = Deconvolve(ConstImageView::Planar(twelve.data(), w, h), {kernel, 3, 1},
                            ImageView::Planar(out.data(), w, h));
  const auto b = Deconvolve(ConstImageView::Planar(sixteen.data(), w, h), {kernel, 3, 1},
                            ImageView::Planar(out.data(), w, h));
  EXPECT_NEAR(a.noiseStrength, b.noiseStrength, 0.01 * b.noiseStrength);
  // 40 levels of 4095: about 1 % noise, whose strength is far above the floor's 0.02.
  EXPECT_GT(a.noiseStrength, 0.05);
}

// A Gaussian kernel of the given sigmas (z, y, x), slices one after another.
std::vector<double> GaussianVolume(int d, int h, int w, double sz, double sy, double sx) {
  std::vector<double> k(static_cast<size_t>(d) * h * w);
  for (int z = 0; z < d; ++z)
    for (int y = 0; y < h; ++y)
      for (int x = 0; x < w; ++x) {
        const double dz = z - d / 2, dy = y - h / 2, dx = x - w / 2;
        k[(z * h + y) * w + x] =
            std::exp(-dz * dz / (2 * sz * sz) - dy * dy / (2 * sy * sy) - dx * dx / (2 * sx * sx));
      }
  return k;
}

TEST(Volume, DeltaKernelGivesTheVolumeBackForEveryBoundary) {
  const int w = 20, h = 14, d = 9;
  std::vector<double> volume(static_cast<size_t>(w) * h * d);
  for (size_t i = 0; i < volume.size(); ++i)
    volume[i] =
        0.4 + 0.3 * std::sin(0.7 * (i % w)) * std::cos(0.5 * (i / w % h) + 0.9 * (i / w / h));
  std::vector<double> delta(27, 0.0);
  delta[13] = 1.0;
  for (Boundary boundary : {Boundary::kPeriodic, Boundary::kSmooth, Boundary::kUnknown}) {
    DeconvolveOptions options;
    options.boundary = boundary;
    options.noise = 1e-4;
    std::vector<double> out(volume.size());
    const auto report =
        Deconvolve(ConstVolumeView::Compact(volume.data(), w, h, d), {delta, 3, 3, 3},
                   VolumeView::Compact(out.data(), w, h, d), options);
    double worst = 0.0;
    for (size_t i = 0; i < out.size(); ++i) worst = std::max(worst, std::abs(out[i] - volume[i]));
    EXPECT_LT(worst, 0.01) << static_cast<int>(boundary);
    EXPECT_EQ(report.kernelDepth, 3);
  }
}

TEST(Volume, AnisotropicKernelRestoresOnlyAlongItsOwnAxes) {
  // Points blurred long along z: restoring with the kernel brings them back; the kernel with z
  // and y swapped (an axis mix-up) leaves them far worse.
  const int w = 24, h = 20, d = 16;
  std::vector<double> truth(static_cast<size_t>(w) * h * d, 0.1);
  for (auto [x, y, z] : {std::array{6, 5, 5}, std::array{15, 12, 9}, std::array{18, 6, 11}})
    truth[(z * h + y) * w + x] = 1.0;
  const int kd = 7, kh = 5, kw = 5;
  auto kernel = GaussianVolume(kd, kh, kw, 1.2, 0.6, 0.6);
  double sum = 0.0;
  for (double v : kernel) sum += v;
  std::vector<double> blurred(truth.size(), 0.0);
  for (int z = 0; z < d; ++z)
    for (int y = 0; y < h; ++y)
      for (int x = 0; x < w; ++x)
        for (int k = 0; k < kd; ++k)
          for (int j = 0; j < kh; ++j)
            for (int i = 0; i < kw; ++i) {
              const int sz = (z + k - kd / 2 + d) % d, sy = (y + j - kh / 2 + h) % h,
                        sx = (x + i - kw / 2 + w) % w;
              blurred[(z * h + y) * w + x] +=
                  kernel[(k * kh + j) * kw + i] / sum * truth[(sz * h + sy) * w + sx];
            }
  std::vector<double> swapped(kernel.size());  // (z, y, x) -> (y, z, x): kh slices of kd rows
  for (int k = 0; k < kd; ++k)
    for (int j = 0; j < kh; ++j)
      for (int i = 0; i < kw; ++i) swapped[(j * kd + k) * kw + i] = kernel[(k * kh + j) * kw + i];
  DeconvolveOptions options;
  options.boundary = Boundary::kPeriodic;
  options.noise = 1e-3;
  auto error = [&](const VolumeKernelView& k) {
    std::vector<double> out(truth.size());
    Deconvolve(ConstVolumeView::Compact(blurred.data(), w, h, d), k,
               VolumeView::Compact(out.data(), w, h, d), options);
    double e = 0.0;
    for (size_t i = 0; i < out.size(); ++i) e += (out[i] - truth[i]) * (out[i] - truth[i]);
    return std::sqrt(e / out.size());
  };
  double blurredError = 0.0;
  for (size_t i = 0; i < truth.size(); ++i)
    blurredError += (blurred[i] - truth[i]) * (blurred[i] - truth[i]);
  blurredError = std::sqrt(blurredError / truth.size());
  const double right = error({kernel, kw, kh, kd});
  const double mixed = error({swapped, kw, kd, kh});
  EXPECT_LT(right, 0.4 * blurredError);
  EXPECT_GT(mixed, 2.0 * right);
}

TEST(Volume, RefusesWhatVolumesDoNotTake) {
  std::vector<double> volume(8 * 8 * 4, 0.5), out(volume.size()), kernel(27, 1.0);
  auto run = [&](const DeconvolveOptions& options, int outDepth = 4) {
    Deconvolve(ConstVolumeView::Compact(volume.data(), 8, 8, 4), {kernel, 3, 3, 3},
               VolumeView::Compact(out.data(), 8, 8, outDepth), options);
  };
  DeconvolveOptions exact, aspect;
  exact.margins = Margins::kExact;
  aspect.voxelAspect = 0.0;
  EXPECT_THROW(run(exact), Error);
  EXPECT_THROW(run(aspect), Error);
  EXPECT_THROW(run({}, 3), Error);
}

}  // namespace
}  // namespace marlith
