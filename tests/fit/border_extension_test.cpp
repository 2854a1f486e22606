#include "fit/border_extension.h"

#include <gtest/gtest.h>

#include <cmath>

namespace marlith {
namespace {

// A smooth image whose opposite edges differ: a ramp plus a bump.
std::vector<double> Ramp(int W, int H, double phase) {
  std::vector<double> v(W * H);
  for (int y = 0; y < H; ++y)
    for (int x = 0; x < W; ++x)
      v[y * W + x] = 0.1 + 0.6 * x / W + 0.2 * y / H + 0.1 * std::sin(phase + 0.3 * x + 0.2 * y);
  return v;
}

TEST(ExtendPeriodicBorder, KeepsTheImageInTheMiddleAndSetsTheSizes) {
  const int W = 20, H = 14;
  const auto image = Ramp(W, H, 0.0);
  BorderExtensionRequest r{image, {}, W, H, 6, 4, 0, 0, 3, 2};
  ASSERT_EQ(extendPeriodicBorder(r), 0);
  ASSERT_EQ(r.paddedWidth, 32);
  ASSERT_EQ(r.paddedHeight, 22);
  ASSERT_EQ(r.padded.size(), 32u * 22);
  for (int y = 0; y < H; ++y)
    for (int x = 0; x < W; ++x) EXPECT_EQ(r.padded[(y + 4) * 32 + x + 6], image[y * W + x]);

  // No side margins: every row is the image row (the middle), nothing else.
  BorderExtensionRequest flat{image, {}, W, H, 0, 3, 0, 0, 2, 2};
  extendPeriodicBorder(flat);
  EXPECT_EQ(flat.paddedWidth, W);
  for (int y = 0; y < H; ++y)
    for (int x = 0; x < W; ++x) EXPECT_EQ(flat.padded[(y + 3) * W + x], image[y * W + x]);

  // A second call replaces the plane.
  r.padX = 2;
  extendPeriodicBorder(r);
  EXPECT_EQ(r.padded.size(), 24u * 22);
}

TEST(ExtendPeriodicBorder, MakesThePlaneSeamlessWhenRepeated) {
  const int W = 40, H = 30, padX = 9, padY = 6;
  const auto image = Ramp(W, H, 1.0);
  BorderExtensionRequest r{image, {}, W, H, padX, padY, 0, 0, 3, 2};
  extendPeriodicBorder(r);
  const int PW = r.paddedWidth, PH = r.paddedHeight;
  const auto& p = r.padded;
  double insideX = 0.0, seamX = 0.0, insideY = 0.0, seamY = 0.0;
  for (int y = 0; y < PH; ++y) {
    for (int x = 0; x + 1 < PW; ++x)
      insideX = std::max(insideX, std::fabs(p[y * PW + x + 1] - p[y * PW + x]));
    seamX = std::max(seamX, std::fabs(p[y * PW] - p[y * PW + PW - 1]));
  }
  for (int x = 0; x < PW; ++x) {
    for (int y = 0; y + 1 < PH; ++y)
      insideY = std::max(insideY, std::fabs(p[(y + 1) * PW + x] - p[y * PW + x]));
    seamY = std::max(seamY, std::fabs(p[x] - p[(PH - 1) * PW + x]));
  }
  EXPECT_LE(seamX, insideX);
  EXPECT_LE(seamY, insideY);
  // Without the margins the seams jump by the ramp's full rise.
  double rawSeam = 0.0;
  for (int y = 0; y < H; ++y)
    rawSeam = std::max(rawSeam, std::fabs(image[y * W] - image[y * W + W - 1]));
  EXPECT_GT(rawSeam, 4 * seamX);
}

TEST(ExtendPeriodicBorderPlanes, EqualsOneCallPerPlane) {
  const int W = 16, H = 12;
  std::vector<double> planes = Ramp(W, H, 0.0);
  const auto second = Ramp(W, H, 2.0);
  planes.insert(planes.end(), second.begin(), second.end());
  const auto together = extendPeriodicBorderPlanes(planes, 2, W, H, 5, 4, 2, 3);
  for (int c = 0; c < 2; ++c) {
    BorderExtensionRequest r{
        std::span<const double>(planes).subspan(c * W * H, W * H), {}, W, H, 5, 4, 0, 0, 2, 3};
    extendPeriodicBorder(r);
    for (size_t i = 0; i < r.padded.size(); ++i)
      ASSERT_EQ(together[c * r.padded.size() + i], r.padded[i]);
  }
}

}  // namespace
}  // namespace marlith
