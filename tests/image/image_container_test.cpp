#include "image/image_container.h"

#include <Magick++.h>
#include <gtest/gtest.h>

#include <chrono>
#include <filesystem>

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
  CxImage init;  // initialises the image library
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

}  // namespace
}  // namespace marlith
