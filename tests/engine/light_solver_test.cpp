// The options API's road through the split solver: linear light, clipped samples, unknown
// borders, the sample mask.
#include <gtest/gtest.h>

#include <cmath>
#include <cstdint>
#include <vector>

#include "engine/light_curve.h"
#include "marlith/deconvolve.hpp"

namespace marlith {
namespace {

double SrgbToLinear(double e) {
  return e <= 0.04045 ? e / 12.92 : std::pow((e + 0.055) / 1.055, 2.4);
}

TEST(LightCurve, TableAndSrgbAgreeBothWays) {
  std::vector<double> table(4096);
  for (size_t i = 0; i < table.size(); ++i) table[i] = SrgbToLinear(i / 4095.0);
  const LightCurve curves[] = {LightCurve::Srgb(), LightCurve::FromTable(table)};
  for (const LightCurve& curve : curves)
    for (double e : {0.0, 0.01, 0.04045, 0.2, 0.5, 0.73, 0.999, 1.0}) {
      EXPECT_NEAR(curve.ToLinear(e), SrgbToLinear(e), 2e-6) << e;
      EXPECT_NEAR(curve.ToEncoded(curve.ToLinear(e)), e, 1e-6) << e;
      const double h = 1e-4, lo = std::max(0.0, e - h), hi = std::min(1.0, e + h);
      EXPECT_NEAR(curve.Slope(e), (SrgbToLinear(hi) - SrgbToLinear(lo)) / (hi - lo), 2e-3) << e;
    }
  EXPECT_THROW(LightCurve::FromTable(std::vector<double>{0.5, 0.2}), Error);
}

// A 64 x 48 colour scene of 8-bit sRGB samples with edges and a bright spot.
std::vector<uint8_t> Scene(int w, int h) {
  std::vector<uint8_t> v(static_cast<size_t>(w) * h * 3);
  for (int y = 0; y < h; ++y)
    for (int x = 0; x < w; ++x)
      for (int c = 0; c < 3; ++c)
        v[(static_cast<size_t>(y) * w + x) * 3 + c] =
            static_cast<uint8_t>(40 + 150 * ((x / 8 + y / 6 + c) % 2) + 30 * std::sin(0.4 * x));
  return v;
}

TEST(Deconvolve, IdentityKernelGivesTheImageBackThroughEveryCurveAndBoundary) {
  // Linearised, restored with a delta kernel and a tiny noise strength, encoded back: the
  // samples must come back to within one level, whatever the curve and the borders.
  const int w = 64, h = 48;
  const auto scene = Scene(w, h);
  const double delta[] = {1.0};
  for (Colorspace colorspace : {Colorspace::kLinear, Colorspace::kSrgb})
    for (Boundary boundary : {Boundary::kPeriodic, Boundary::kSmooth, Boundary::kUnknown}) {
      DeconvolveOptions options;
      options.colorspace = colorspace;
      options.boundary = boundary;
      options.noise = 1e-4;
      std::vector<uint8_t> out(scene.size());
      Deconvolve(ConstImageView::Interleaved(scene.data(), w, h, 3), {delta, 1, 1},
                 ImageView::Interleaved(out.data(), w, h, 3), options);
      int worst = 0;
      for (size_t i = 0; i < out.size(); ++i) worst = std::max(worst, std::abs(out[i] - scene[i]));
      EXPECT_LE(worst, 1) << static_cast<int>(colorspace) << " " << static_cast<int>(boundary);
    }
}

// A light far brighter than full scale (a street light), blurred and clipped: the clipped
// samples are not the blur of anything. Fitted as data they hold the light to what was
// recorded; taken as bounds (integer samples at full scale) the light comes back brighter
// than the sensor recorded, towards the light that was there.
TEST(Deconvolve, ClippedSamplesAreBoundsNotData) {
  const int w = 48, h = 48, size = 9;
  std::vector<double> sharp(static_cast<size_t>(w) * h, 0.2), kernel(size * size);
  for (int y = 0; y < h; ++y)
    for (int x = 0; x < w; ++x)
      if ((x - 24) * (x - 24) + (y - 24) * (y - 24) <= 4) sharp[y * w + x] = 3.0;
  double total = 0.0;
  for (int j = 0; j < size; ++j)
    for (int i = 0; i < size; ++i)
      total += kernel[j * size + i] = std::exp(-((i - 4) * (i - 4) + (j - 4) * (j - 4)) / 4.5);
  for (double& k : kernel) k /= total;
  std::vector<uint16_t> clipped(sharp.size());
  std::vector<double> asData(sharp.size());
  for (int y = 0; y < h; ++y)
    for (int x = 0; x < w; ++x) {
      double s = 0.0;
      for (int j = 0; j < size; ++j)
        for (int i = 0; i < size; ++i)
          s += kernel[j * size + i] *
               sharp[std::clamp(y + j - 4, 0, h - 1) * w + std::clamp(x + i - 4, 0, w - 1)];
      clipped[y * w + x] = static_cast<uint16_t>(std::lround(std::min(s, 1.0) * 65535));
      asData[y * w + x] = clipped[y * w + x] / 65535.0;
    }
  DeconvolveOptions options;
  options.noise = 0.02;
  std::vector<double> fromBounds(sharp.size()), fromData(sharp.size());
  Deconvolve(ConstImageView::Planar(clipped.data(), w, h), {kernel, size, size},
             ImageView::Planar(fromBounds.data(), w, h), options);
  Deconvolve(ConstImageView::Planar(asData.data(), w, h), {kernel, size, size},
             ImageView::Planar(fromData.data(), w, h), options);
  // The light above the background within 10 samples of the light's centre: 13 x 2.8 in the
  // scene; deconvolution keeps a plane's sum, so fitting the clipped samples as data gives
  // back what was recorded.
  auto light = [&](auto&& at) {
    double sum = 0.0;
    for (int y = 14; y <= 34; ++y)
      for (int x = 14; x <= 34; ++x)
        if ((x - 24) * (x - 24) + (y - 24) * (y - 24) <= 100) sum += at(y * w + x) - 0.2;
    return sum;
  };
  const double scene = light([&](int i) { return sharp[i]; });
  const double recorded = light([&](int i) { return asData[i]; });
  const double bounds = light([&](int i) { return fromBounds[i]; });
  const double data = light([&](int i) { return fromData[i]; });
  EXPECT_LT(data, recorded + 0.05 * (scene - recorded));
  EXPECT_GT(bounds, recorded + 0.2 * (scene - recorded));
}

TEST(Deconvolve, MaskedSamplesAreLeftOutOfTheFit) {
  // Samples given weight 0 hold garbage: the result is the one with clean samples there.
  const int w = 48, h = 40;
  std::vector<double> clean(static_cast<size_t>(w) * h), dirty, mask(clean.size(), 1.0);
  for (int i = 0; i < w * h; ++i)
    clean[i] = 0.3 + 0.2 * std::sin(0.37 * (i % w)) * std::cos(0.21 * (i / w));
  dirty = clean;
  for (int i = 500; i < 540; ++i) dirty[i] = 1.0, mask[i] = 0.0;
  const double kernel[] = {0.2, 0.6, 0.2};
  for (Boundary boundary : {Boundary::kSmooth, Boundary::kUnknown}) {
    DeconvolveOptions options;
    options.noise = 0.01;
    options.boundary = boundary;
    options.mask = ConstImageView::Planar(mask.data(), w, h);
    std::vector<double> a(clean.size()), b(clean.size());
    Deconvolve(ConstImageView::Planar(clean.data(), w, h), {kernel, 3, 1},
               ImageView::Planar(a.data(), w, h), options);
    Deconvolve(ConstImageView::Planar(dirty.data(), w, h), {kernel, 3, 1},
               ImageView::Planar(b.data(), w, h), options);
    double worst = 0.0;
    for (size_t i = 0; i < a.size(); ++i) worst = std::max(worst, std::abs(a[i] - b[i]));
    EXPECT_EQ(worst, 0.0) << static_cast<int>(boundary);
  }
  DeconvolveOptions options;
  std::vector<double> wrongSize(10, 1.0), b(clean.size());
  options.mask = ConstImageView::Planar(wrongSize.data(), 5, 2);
  EXPECT_THROW(Deconvolve(ConstImageView::Planar(dirty.data(), w, h), {kernel, 3, 1},
                          ImageView::Planar(b.data(), w, h), options),
               Error);
  mask[0] = 1.5;
  options.mask = ConstImageView::Planar(mask.data(), w, h);
  EXPECT_THROW(Deconvolve(ConstImageView::Planar(dirty.data(), w, h), {kernel, 3, 1},
                          ImageView::Planar(b.data(), w, h), options),
               Error);
}

}  // namespace
}  // namespace marlith
