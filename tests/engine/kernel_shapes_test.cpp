#include <gtest/gtest.h>

#include <cmath>
#include <numbers>
#include <random>

#include "marlith/kernels.hpp"
#include "support/test_support.h"

namespace marlith {
namespace {

// Weight, centroid and second moments of a kernel in screen coordinates (x right, y up, the
// centre sample at 0).
struct Moments {
  double sum = 0, x = 0, y = 0, xx = 0, yy = 0, xy = 0;
};

Moments MomentsOf(const Kernel& k) {
  Moments m;
  for (int row = 0; row < k.height; ++row)
    for (int column = 0; column < k.width; ++column) {
      const double v = k.values[static_cast<size_t>(row) * k.width + column];
      const double x = column - k.width / 2, y = k.height / 2 - row;
      m.sum += v, m.x += v * x, m.y += v * y, m.xx += v * x * x, m.yy += v * y * y,
          m.xy += v * x * y;
    }
  return m;
}

void ExpectNormalisedAndCentred(const Kernel& k, const std::string& what) {
  const Moments m = MomentsOf(k);
  EXPECT_EQ(k.width % 2, 1) << what;
  EXPECT_EQ(k.height % 2, 1) << what;
  EXPECT_NEAR(m.sum, 1.0, 1e-12) << what;
  EXPECT_NEAR(m.x, 0.0, 1e-9) << what;
  EXPECT_NEAR(m.y, 0.0, 1e-9) << what;
}

// Integrating over each sample's square adds the square's own variance, 1/12 per axis
// (Sheppard's correction), to the shape's.
constexpr double kSquareVariance = 1.0 / 12;

TEST(KernelShapes, GaussianHasItsVarianceOnEachAxis) {
  for (double sigma : {0.8, 1.6, 2.5, 7.0}) {
    const Kernel k = GaussianKernel(sigma);
    ExpectNormalisedAndCentred(k, "sigma " + std::to_string(sigma));
    const Moments m = MomentsOf(k);
    EXPECT_NEAR(m.xx, sigma * sigma + kSquareVariance, 2e-3 * sigma * sigma) << sigma;
    EXPECT_NEAR(m.yy, m.xx, 1e-12) << sigma;
    EXPECT_NEAR(m.xy, 0.0, 1e-12) << sigma;
    EXPECT_EQ(k.width, 2 * static_cast<int>(std::ceil(4 * sigma)) + 1) << sigma;
  }
}

TEST(KernelShapes, DiscCentreSampleIsOneOverTheDiscsArea) {
  // A sample wholly inside holds area 1 of the disc's pi r^2; the second moment of a uniform
  // disc is r^2 / 4 on each axis.
  for (double r : {1.5, 3.5, 6.0, 10.25}) {
    const Kernel k = DiskKernel(r);
    ExpectNormalisedAndCentred(k, "radius " + std::to_string(r));
    EXPECT_NEAR(1.0 / k.values[k.values.size() / 2], std::numbers::pi * r * r, 1e-9 * r * r) << r;
    const Moments m = MomentsOf(k);
    // The squares' share is 1/12 only where the edge crosses many samples.
    if (r >= 3) {
      EXPECT_NEAR(m.xx, r * r / 4 + kSquareVariance, 0.01 * r * r) << r;
    }
    EXPECT_NEAR(m.yy, m.xx, 1e-12) << r;
    EXPECT_EQ(k.width, 2 * static_cast<int>(std::ceil(r - 0.5)) + 1) << r;
  }
  EXPECT_EQ(DiskKernel(0.5).values, std::vector<double>{1.0});
}

TEST(KernelShapes, MotionLineHasItsLengthAndAngleInItsSecondMoments) {
  // A segment of length L has variance L^2 / 12 along itself: the covariance's larger
  // eigenvalue less the square's share, its eigenvector the direction (y up). A sign or
  // axis mix-up turns 30 degrees into -30 or 60.
  struct Case {
    double length, angle;
  };
  for (const Case c :
       {Case{15, 30}, Case{21, 120}, Case{9, -45}, Case{12, 0}, Case{12, 90}, Case{7.5, 200}}) {
    const std::string what = std::to_string(c.length) + " at " + std::to_string(c.angle);
    const Kernel k = MotionKernel(c.length, c.angle);
    ExpectNormalisedAndCentred(k, what);
    const Moments m = MomentsOf(k);
    const double mean = (m.xx + m.yy) / 2, half = std::hypot((m.xx - m.yy) / 2, m.xy);
    EXPECT_NEAR(std::sqrt(12 * (mean + half - kSquareVariance)), c.length, 0.03 * c.length) << what;
    // The axis's angle, modulo 180 degrees, against the line's.
    const double axis = 0.5 * std::atan2(2 * m.xy, m.xx - m.yy) * 180 / std::numbers::pi;
    const double off = std::remainder(axis - c.angle, 180.0);
    EXPECT_NEAR(off, 0.0, 1.0) << what << ": axis at " << axis;
  }
  // Along an axis the line covers whole samples and a fraction at each end.
  const Kernel row = MotionKernel(4, 0);
  ASSERT_EQ(row.height, 1);
  EXPECT_EQ(row.values, (std::vector<double>{0.125, 0.25, 0.25, 0.25, 0.125}));
}

TEST(KernelShapes, SpecsAreReadOrRefusedSayingWhy) {
  const KernelSpec motion = ParseKernelSpec("motion:15,-30.5");
  EXPECT_EQ(motion.shape, KernelShape::kMotion);
  EXPECT_EQ(motion.size, 15.0);
  EXPECT_EQ(motion.angle, -30.5);
  EXPECT_TRUE(ParseKernelSpec("gaussian:auto").automatic);
  EXPECT_EQ(MakeKernel(ParseKernelSpec("disk:3.5")).values, DiskKernel(3.5).values);
  const std::pair<const char*, const char*> refused[] = {
      {"gaussian:", "sigma is missing"},
      {"gaussian:1,5", "decimal point"},
      {"disk:-2", "above 0"},
      {"motion:15", "LENGTH,ANGLE"},
      {"motion:15,nan", "'nan' is not a number"},
      {"box:3", "unknown shape"},
      {"gaussian:2000", "at most 1000"},
  };
  for (const auto& [spec, why] : refused) {
    const std::string text = spec;  // clang 14 cannot capture a structured binding
    test::ExpectRefused([&] { ParseKernelSpec(text); }, spec, why);
  }
  EXPECT_THROW(MakeKernel(ParseKernelSpec("gaussian:auto")), Error);
}

TEST(KernelShapes, GaussianSigmaIsEstimatedFromStepEdges) {
  // Flat patches of random levels (every edge a step), blurred by the sampled Gaussian with
  // replicated borders and given 0.5 % noise.
  const int w = 256, h = 256;
  std::mt19937 random(3);
  std::uniform_real_distribution<double> level(0.05, 0.95);
  std::vector<double> sharp(static_cast<size_t>(w) * h);
  double patch[8][8];
  for (auto& row : patch)
    for (double& v : row) v = level(random);
  for (int y = 0; y < h; ++y)
    for (int x = 0; x < w; ++x) sharp[static_cast<size_t>(y) * w + x] = patch[y / 32][x / 32];
  for (double sigma : {1.2, 2.0, 3.0}) {
    const Kernel k = GaussianKernel(sigma);
    const int r = k.width / 2;
    std::normal_distribution<double> noise(0.0, 0.005);
    std::vector<double> blurred(sharp.size());
    for (int y = 0; y < h; ++y)
      for (int x = 0; x < w; ++x) {
        double s = 0.0;
        for (int j = -r; j <= r; ++j)
          for (int i = -r; i <= r; ++i)
            s += k.values[static_cast<size_t>(j + r) * k.width + i + r] *
                 sharp[static_cast<size_t>(std::clamp(y - j, 0, h - 1)) * w +
                       std::clamp(x - i, 0, w - 1)];
        blurred[static_cast<size_t>(y) * w + x] = s + noise(random);
      }
    EXPECT_NEAR(EstimateGaussianSigma(blurred, w, h, 1), sigma, 0.3) << sigma;
  }
  test::ExpectRefused([&] { EstimateGaussianSigma(std::vector<double>(900, 0.5), 30, 30, 1); },
                      "30 x 30", "too small");
  test::ExpectRefused([&] { EstimateGaussianSigma(std::vector<double>(w * h, 0.5), w, h, 1); }, "",
                      "too few clear edges");
}

}  // namespace
}  // namespace marlith
