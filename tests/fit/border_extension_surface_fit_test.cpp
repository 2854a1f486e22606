#include "fit/border_extension_surface_fit.h"

#include <gtest/gtest.h>

#include <cmath>
#include <filesystem>

#include "support/test_support.h"

namespace marlith {
namespace {

TEST(ExtendPeriodicBorderBySurfaceFit, KeepsTheImageNarrowsTheSeamsAndWritesTheDebugImage) {
  test::TempDir dir;
  const auto previous = std::filesystem::current_path();
  std::filesystem::current_path(dir.path());
  const int W = 24, H = 18;
  std::vector<double> image(W * H);
  for (int y = 0; y < H; ++y)
    for (int x = 0; x < W; ++x) image[y * W + x] = 0.1 + 0.7 * x / W + 0.15 * y / H;
  BorderExtensionRequest r{image, {}, W, H, 6, 5, 0, 0, 3, 3};
  EXPECT_EQ(extendPeriodicBorderBySurfaceFit(r), 0);
  EXPECT_TRUE(std::filesystem::exists("surfaceFitOut1.png"));
  std::filesystem::current_path(previous);
  ASSERT_EQ(r.paddedWidth, 36);
  ASSERT_EQ(r.paddedHeight, 28);
  for (int y = 0; y < H; ++y)
    for (int x = 0; x < W; ++x) ASSERT_EQ(r.padded[(y + 5) * 36 + x + 6], image[y * W + x]);
  // Across the repeated plane's left-right seam the jump is far below the image's own.
  double seam = 0.0;
  for (int y = 5; y < 5 + H; ++y)
    seam = std::max(seam, std::fabs(r.padded[y * 36] - r.padded[y * 36 + 35]));
  EXPECT_LT(seam, 0.5 * 0.7);
}

}  // namespace
}  // namespace marlith
