#include "image/plane_saving.h"

#include <gtest/gtest.h>

#include <cmath>
#include <limits>

#include "image/image_container.h"
#include "support/test_support.h"

namespace marlith {
namespace {

TEST(ImageTypeFromName, ReadsTheLastThreeCharactersCaseSensitively) {
  EXPECT_EQ(ImageTypeFromName("a.png"), 4);
  EXPECT_EQ(ImageTypeFromName("a.jpg"), 3);
  EXPECT_EQ(ImageTypeFromName("a.bmp"), 1);
  EXPECT_EQ(ImageTypeFromName("xpng"), 4);  // no dot needed
  EXPECT_EQ(ImageTypeFromName("dir.png/file.bmp"), 1);
  EXPECT_EQ(ImageTypeFromName("a.PNG"), 0);
  EXPECT_EQ(ImageTypeFromName("a.jpeg"), 0);
  EXPECT_EQ(ImageTypeFromName("a.tif"), 0);
  EXPECT_EQ(ImageTypeFromName("png"), 0);  // fewer than 4 characters
  EXPECT_EQ(ImageTypeFromName(""), 0);
}

// Reads back the red, green and blue bytes of a saved image.
std::vector<PixelColor> ReadBack(const std::string& path) {
  CxImage image;
  EXPECT_TRUE(image.Load(path, 0)) << image.GetLastError();
  std::vector<PixelColor> out;
  for (int y = 0; y < image.GetHeight(); ++y)
    for (int x = 0; x < image.GetWidth(); ++x) out.push_back(image.GetPixelColor(x, y, false));
  return out;
}

TEST(SaveGreyPlane, TruncatesLimitsAndLeavesNegativeAndNaNBlack) {
  test::TempDir dir;
  const double nan = std::numeric_limits<double>::quiet_NaN();
  const std::vector<double> plane = {1.2, -0.1, 0.5, 0.999, 0.0, 1.0, nan, 2.0 / 255.0};
  // 2/255 x 255 lands a hair below 2 in floating point or on it; truncation gives 1 or 2.
  ASSERT_TRUE(SaveGreyPlane(plane, 4, 2, dir / "g.png").ok);
  const auto px = ReadBack(dir / "g.png");
  const int expected[] = {255, 0, 127, 254, 0, 255, 0};
  for (int i = 0; i < 7; ++i) {
    EXPECT_EQ(px[i].red, expected[i]) << i;
    EXPECT_EQ(px[i].green, expected[i]) << i;
    EXPECT_EQ(px[i].blue, expected[i]) << i;
  }
  EXPECT_EQ(px[7].red, static_cast<int>(2.0 / 255.0 * 255.0));
}

TEST(SaveGreyPlane, StretchesLinearlyInModeOneAndWritesBlackOtherwise) {
  test::TempDir dir;
  const std::vector<double> plane = {-1.0, 0.0, 1.0, 3.0};  // range 4: 0, 63.75, 127.5, 255
  ASSERT_TRUE(SaveGreyPlane(plane, 2, 2, dir / "s.bmp", 1).ok);
  const auto px = ReadBack(dir / "s.bmp");
  EXPECT_EQ(px[0].red, 0);
  EXPECT_EQ(px[1].red, 63);
  EXPECT_EQ(px[2].red, 127);
  EXPECT_EQ(px[3].red, 255);
  ASSERT_TRUE(SaveGreyPlane(std::vector<double>(4, 0.5), 2, 2, dir / "c.png", 1).ok);
  for (const auto& p : ReadBack(dir / "c.png")) EXPECT_EQ(p.red, 0);  // 0 / 0: left black
  ASSERT_TRUE(SaveGreyPlane(plane, 2, 2, dir / "b.png", 7).ok);
  for (const auto& p : ReadBack(dir / "b.png")) EXPECT_EQ(p.green, 0);
}

TEST(SaveColourPlanes, PutsEachPlaneInItsOwnByteAndIgnoresExtraChannels) {
  test::TempDir dir;
  // Two pixels, four planes: red, green, blue, and a fourth that must change nothing.
  const std::vector<double> planes = {0.2, 1.5, -0.3, 0.4, 0.6, 0.0, 0.9, 0.9};
  ASSERT_TRUE(SaveColourPlanes(planes, 2, 1, 4, dir / "c.png").ok);
  const auto px = ReadBack(dir / "c.png");
  EXPECT_EQ(px[0].red, 51);  // 0.2 x 255 = 51
  EXPECT_EQ(px[0].green, 0);
  EXPECT_EQ(px[0].blue, 153);
  EXPECT_EQ(px[1].red, 255);
  EXPECT_EQ(px[1].green, 102);
  EXPECT_EQ(px[1].blue, 0);
  const SaveResult failed = SaveColourPlanes(planes, 2, 1, 3, dir / "c.tif");
  EXPECT_FALSE(failed.ok);
  EXPECT_NE(failed.error.find("c.tif"), std::string::npos);
  EXPECT_FALSE(std::filesystem::exists(dir / "c.tif"));
}

}  // namespace
}  // namespace marlith
