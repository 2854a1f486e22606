#include "image/plane_saving.h"

#include <gtest/gtest.h>

#include <cmath>
#include <limits>

#include "image/image_container.h"
#include "support/test_support.h"

namespace marlith {
namespace {

TEST(ImageTypeFromName, ReadsTheLastThreeCharactersCaseSensitively) {
  const std::pair<std::string, int32_t> names[] = {
      {"a.png", 4}, {"a.jpg", 3},  {"a.bmp", 1}, {"xpng", 4}, {"dir.png/file.bmp", 1},
      {"a.PNG", 0}, {"a.jpeg", 0}, {"png", 0},  // fewer than 4 characters
  };
  for (const auto& [name, type] : names) EXPECT_EQ(ImageTypeFromName(name), type) << name;
}

TEST(PlaneSaving, WritesTheBytesTheFrozenCommandWroteAs24BitColour) {
  test::TempDir dir;
  const double nan = std::numeric_limits<double>::quiet_NaN();
  struct Case {
    std::string name;
    int width, height, channels, mode;  // channels 1: SaveGreyPlane in that mode
    std::vector<double> planes;
    std::vector<int> bytes;  // of each pixel: the grey level, or red, green and blue
  };
  const Case cases[] = {
      // x 255 truncated after limiting; negative and NaN samples left black.
      {"g.png", 7, 1, 1, 0, {1.2, -0.1, 0.5, 0.999, 0, 1, nan}, {255, 0, 127, 254, 0, 255, 0}},
      // Stretched over the range (4 here): 0, 63.75, 127.5, 255.
      {"s.bmp", 2, 2, 1, 1, {-1.0, 0.0, 1.0, 3.0}, {0, 63, 127, 255}},
      {"c.png", 2, 2, 1, 1, {0.5, 0.5, 0.5, 0.5}, {0, 0, 0, 0}},   // 0 / 0: left black
      {"b.png", 2, 2, 1, 7, {-1.0, 0.0, 1.0, 3.0}, {0, 0, 0, 0}},  // other modes: black
      // Each plane in its own byte; a fourth plane changes nothing.
      {"c.bmp", 2, 1, 4, 0, {0.2, 1.5, -0.3, 0.4, 0.6, 0.0, 0.9, 0.9}, {51, 0, 153, 255, 102, 0}},
  };
  for (const Case& c : cases) {
    const SaveResult saved =
        c.channels == 1 ? SaveGreyPlane(c.planes, c.width, c.height, dir / c.name, c.mode)
                        : SaveColourPlanes(c.planes, c.width, c.height, c.channels, dir / c.name);
    ASSERT_TRUE(saved.ok) << c.name << ": " << saved.error;
    CxImage image;
    ASSERT_TRUE(image.Load(dir / c.name, 0)) << image.GetLastError();
    EXPECT_EQ(image.GetColorType(), 2) << c.name;
    const bool grey = c.channels == 1;
    for (int i = 0; i < c.width * c.height; ++i) {
      const PixelColor p = image.GetPixelColor(i % c.width, i / c.width, false);
      const int* expected = &c.bytes[grey ? i : 3 * i];
      EXPECT_EQ(p.red, expected[0]) << c.name << " pixel " << i;
      EXPECT_EQ(p.green, expected[grey ? 0 : 1]) << c.name << " pixel " << i;
      EXPECT_EQ(p.blue, expected[grey ? 0 : 2]) << c.name << " pixel " << i;
    }
  }
}

}  // namespace
}  // namespace marlith
