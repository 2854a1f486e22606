#include "fit/border_extension_surface_fit.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <cmath>

#include "support/test_support.h"

namespace marlith {
namespace {

// A smooth image that differs strongly between opposite edges in both directions.
std::vector<double> Ramp(int W, int H) {
  std::vector<double> image(W * H);
  for (int y = 0; y < H; ++y)
    for (int x = 0; x < W; ++x)
      image[y * W + x] = 0.1 + 0.5 * x / W + 0.3 * y / H + 0.05 * std::sin(0.4 * x + 0.3 * y);
  return image;
}

// Runs the extension, noting whether its debug fit handed a plane to the writer.
int32_t ExtendNotingDebugImage(BorderExtensionRequest& r, bool& wroteDebugImage) {
  wroteDebugImage = false;
  return extendPeriodicBorderBySurfaceFit(
      r, [&](std::span<const double>, int32_t, int32_t) { wroteDebugImage = true; });
}

TEST(ExtendPeriodicBorderBySurfaceFit, KeepsTheImageInTheMiddleAndWritesTheDebugImage) {
  const int W = 24, H = 18;
  const auto image = Ramp(W, H);
  BorderExtensionRequest r{image, {}, W, H, 6, 5, 0, 0, 3, 3};
  bool wrote = false;
  EXPECT_EQ(ExtendNotingDebugImage(r, wrote), 0);
  EXPECT_TRUE(wrote);
  ASSERT_EQ(r.paddedWidth, W + 12);
  ASSERT_EQ(r.paddedHeight, H + 10);
  ASSERT_EQ(r.padded.size(), static_cast<size_t>(36 * 28));
  for (int y = 0; y < H; ++y)
    for (int x = 0; x < W; ++x) ASSERT_EQ(r.padded[(y + 5) * 36 + x + 6], image[y * W + x]);
  for (double v : r.padded) ASSERT_TRUE(std::isfinite(v));
}

TEST(ExtendPeriodicBorderBySurfaceFit, NarrowsBothSeamsOfTheRepeatedPlane) {
  // Continuity in a loose sense: repeated, the padded plane's jump from its last column to its
  // first (and last row to first) is a small part of the image's own jump between its
  // opposite edges, and each margin sample next to the image lies nearer to the image edge it
  // continues than to the opposite one.
  const int W = 24, H = 18, padX = 6, padY = 5;
  const auto image = Ramp(W, H);
  BorderExtensionRequest r{image, {}, W, H, padX, padY, 0, 0, 3, 3};
  bool wrote = false;
  ExtendNotingDebugImage(r, wrote);
  const int PW = r.paddedWidth, PH = r.paddedHeight;
  auto img = [&](int x, int y) { return image[y * W + x]; };
  auto pad = [&](int x, int y) { return r.padded[y * PW + x]; };
  for (int y = 0; y < H; ++y) {
    const int py = y + padY;
    const double jump = std::fabs(img(W - 1, y) - img(0, y));
    EXPECT_LT(std::fabs(pad(PW - 1, py) - pad(0, py)), 0.25 * jump) << y;
    const double right = pad(padX + W, py), left = pad(padX - 1, py);
    EXPECT_LT(std::fabs(right - img(W - 1, y)), std::fabs(right - img(0, y))) << y;
    EXPECT_LT(std::fabs(left - img(0, y)), std::fabs(left - img(W - 1, y))) << y;
  }
  for (int x = 0; x < W; ++x) {
    const int px = x + padX;
    const double jump = std::fabs(img(x, H - 1) - img(x, 0));
    EXPECT_LT(std::fabs(pad(px, PH - 1) - pad(px, 0)), 0.25 * jump) << x;
    const double below = pad(px, padY + H), above = pad(px, padY - 1);
    EXPECT_LT(std::fabs(below - img(x, H - 1)), std::fabs(below - img(x, 0))) << x;
    EXPECT_LT(std::fabs(above - img(x, 0)), std::fabs(above - img(x, H - 1))) << x;
  }
}

TEST(ExtendPeriodicBorderBySurfaceFit, ReplacesThePaddedPlaneAndAddsNoColumnsForZeroPadX) {
  const int W = 16, H = 12;
  const auto image = Ramp(W, H);
  BorderExtensionRequest r{image, {}, W, H, 4, 4, 0, 0, 2, 2};
  bool wrote = false;
  ExtendNotingDebugImage(r, wrote);
  ASSERT_EQ(r.padded.size(), static_cast<size_t>(24 * 20));
  r.padX = 0;
  ExtendNotingDebugImage(r, wrote);
  ASSERT_EQ(r.paddedWidth, W);
  ASSERT_EQ(r.paddedHeight, H + 8);
  ASSERT_EQ(r.padded.size(), static_cast<size_t>(W * (H + 8)));
  for (int y = 0; y < H; ++y)
    for (int x = 0; x < W; ++x) ASSERT_EQ(r.padded[(y + 4) * W + x], image[y * W + x]);
}

}  // namespace
}  // namespace marlith
