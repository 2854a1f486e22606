// The frozen command's image files: loaded into its image container, and planes saved.
#include "image/image_container.h"

#include <Magick++.h>
#include <gtest/gtest.h>
#include <sys/stat.h>

#include <chrono>
#include <cmath>
#include <filesystem>
#include <limits>

#include "image/plane_saving.h"
#include "image/png_codec.h"
#include "support/test_support.h"

namespace marlith {
namespace {

using test::TempDir;

// The 4 x 3 test pattern's red, green, blue and alpha levels at pixel i: red 0, 20, ..., 220;
// green and blue distinct unless the image is grey.
int Level(int i, int channel, bool grey) {
  const int levels[] = {i * 20, grey ? i * 20 : 255 - i * 10, grey ? i * 20 : 7 * i, 255 - i * 5};
  return levels[channel];
}

// The pattern written through GraphicsMagick in the given form (with alpha for a matte type).
void WritePattern(const std::string& path, const std::string& format, Magick::ImageType type,
                  int depth) {
  Magick::InitializeMagick(nullptr);
  const bool alpha = type == Magick::TrueColorMatteType;
  std::vector<unsigned char> levels;
  for (int i = 0; i < 12; ++i)
    for (int c = 0; c < 3 + alpha; ++c)
      levels.push_back(Level(i, c, type == Magick::GrayscaleType));
  Magick::Image image(4, 3, alpha ? "RGBA" : "RGB", Magick::CharPixel, levels.data());
  image.type(type);
  image.depth(depth);
  if (format == "JPEG") {
    image.quality(100);
    image.defineValue("jpeg", "sampling-factor", "1x1");  // keeps colours within a few levels
  }
  image.write(format + ":" + path);  // the prefix wins over the name's extension
}

TEST(CxImage, ReportsColourTypesAndPixelBytesOfEachKindOfFileWhateverTypeIsAskedFor) {
  TempDir dir;
  struct Case {
    std::string name, format;
    Magick::ImageType type;
    int depth;
    int32_t asked;  // the type code Load is given: a wrong one falls back to the content
    int32_t colourType;
  };
  const Case cases[] = {
      {"grey16.png", "PNG", Magick::GrayscaleType, 16, kImageTypeJpeg, 1},
      {"grey.png", "PNG", Magick::GrayscaleType, 8, kImageTypePng, 1},
      {"palette.png", "PNG8", Magick::PaletteType, 8, 7, 1},
      {"rgb.png", "PNG24", Magick::TrueColorType, 8, kImageTypePng, 2},
      {"rgba.png", "PNG32", Magick::TrueColorMatteType, 8, kImageTypeUnknown, 4},
      {"rgb.bmp", "BMP3", Magick::TrueColorType, 8, kImageTypePng, 2},
      {"grey.jpg", "JPEG", Magick::GrayscaleType, 8, kImageTypeJpeg, 1},
  };
  for (const Case& c : cases) {
    WritePattern(dir / c.name, c.format, c.type, c.depth);
    CxImage image;
    ASSERT_TRUE(image.Load(dir / c.name, c.asked)) << c.name << ": " << image.GetLastError();
    EXPECT_EQ(image.GetWidth(), 4) << c.name;
    EXPECT_EQ(image.GetHeight(), 3) << c.name;
    EXPECT_EQ(image.GetColorType(), c.colourType) << c.name;
    const bool grey = c.type == Magick::GrayscaleType, alpha = c.type == Magick::TrueColorMatteType;
    const int tolerance = c.format == "JPEG" ? 6 : 0;  // lossy
    for (int i = 0; i < 12; ++i) {
      const PixelColor p = image.GetPixelColor(i % 4, i / 4, true);
      const int levels[] = {p.red, p.green, p.blue};
      for (int ch = 0; ch < 3; ++ch)
        EXPECT_NEAR(levels[ch], Level(i, ch, grey), tolerance) << c.name << " pixel " << i;
      EXPECT_EQ(p.alpha, alpha ? Level(i, 3, grey) : 255) << c.name << " pixel " << i;
    }
  }
}

TEST(CxImage, RefusesAHugeHeaderBeforeDecodingPixels) {
  TempDir dir;
  test::WriteFileBytes(dir / "huge.png", test::HugePng());
  CxImage image;
  const auto start = std::chrono::steady_clock::now();
  EXPECT_FALSE(image.Load(dir / "huge.png", kImageTypePng));
  EXPECT_LT(std::chrono::steady_clock::now() - start, std::chrono::seconds(5));
  EXPECT_NE(image.GetLastError().find("pixels"), std::string::npos) << image.GetLastError();
}

TEST(ReadPngSize, ReadsTheHeaderOfPngFilesOnlyAndNeverWaits) {
  TempDir dir;
  const std::string huge = test::HugePng();
  test::WriteFileBytes(dir / "huge.png", huge);
  test::WriteFileBytes(dir / "cut.png", huge.substr(0, 23));
  test::WriteFileBytes(dir / "text.png", "not a PNG file at all, though long enough");
  std::string zeroWidth = huge;
  zeroWidth.replace(16, 4, std::string(4, '\0'));
  test::WriteFileBytes(dir / "zero.png", zeroWidth);
  std::filesystem::create_directory(dir / "folder.png");
  ASSERT_EQ(mkfifo((dir / "fifo.png").c_str(), 0600), 0);  // opened, never waited on
  int32_t width = 0, height = 0;
  ASSERT_TRUE(ReadPngSize(dir / "huge.png", width, height));
  EXPECT_EQ(width, 100000);
  EXPECT_EQ(height, 100000);
  for (const char* name : {"cut.png", "text.png", "zero.png", "folder.png", "fifo.png", "none.png"})
    EXPECT_FALSE(ReadPngSize(dir / name, width, height)) << name;
}

TEST(ImageTypeFromName, ReadsTheLastThreeCharactersCaseSensitively) {
  const std::pair<std::string, int32_t> names[] = {
      {"a.png", 4}, {"a.jpg", 3},  {"a.bmp", 1}, {"xpng", 4}, {"dir.png/file.bmp", 1},
      {"a.PNG", 0}, {"a.jpeg", 0}, {"png", 0},  // fewer than 4 characters
  };
  for (const auto& [name, type] : names) EXPECT_EQ(ImageTypeFromName(name), type) << name;
}

TEST(PlaneSaving, WritesTheBytesTheFrozenCommandWroteAs24BitColour) {
  TempDir dir;
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

// A PNG tall enough to be deflated in several parts reads back exactly through libspng (the
// container's loader) and libpng (GraphicsMagick's).
TEST(PlaneSaving, WritesPngsInPartsThatBothDecodersRead) {
  TempDir dir;
  const int width = 37, height = 300, n = width * height;
  const std::vector<double> planes = test::RandomValues(3 * n, 21, 0.0, 1.0);
  ASSERT_TRUE(SaveColourPlanes(planes, width, height, 3, dir / "parts.png").ok);
  CxImage image;
  ASSERT_TRUE(image.Load(dir / "parts.png", 0)) << image.GetLastError();
  Magick::InitializeMagick(nullptr);
  Magick::Image other(dir / "parts.png");
  for (int i = 0; i < n; ++i) {
    const PixelColor p = image.GetPixelColor(i % width, i / width, false);
    const Magick::ColorRGB q = other.pixelColor(i % width, i / width);
    const int read[2][3] = {{p.red, p.green, p.blue},
                            {static_cast<int>(std::lround(q.red() * 255)),
                             static_cast<int>(std::lround(q.green() * 255)),
                             static_cast<int>(std::lround(q.blue() * 255))}};
    for (int c = 0; c < 3; ++c) {
      const int expected = static_cast<int>(planes[c * n + i] * 255);  // truncated
      ASSERT_EQ(read[0][c], expected) << "libspng, pixel " << i;
      ASSERT_EQ(read[1][c], expected) << "libpng, pixel " << i;
    }
  }
}

}  // namespace
}  // namespace marlith
