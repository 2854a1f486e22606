#include "image/image_container.h"

#include <Magick++.h>
#include <gtest/gtest.h>
#include <zlib.h>

#include <chrono>
#include <filesystem>

#include "support/test_support.h"

namespace marlith {
namespace {

using test::TempDir;

// A 4 x 3 test pattern written through GraphicsMagick in the given form.
void WritePattern(const std::string& path, const std::string& format, Magick::ImageType type,
                  bool alpha = false, int depth = 8) {
  CxImage init;  // initialises the image library
  Magick::Image image(Magick::Geometry(4, 3), Magick::Color(0, 0, 0));
  image.modifyImage();
  image.classType(Magick::DirectClass);
  image.matte(alpha);  // before the pixels: switching it on later resets them to opaque
  Magick::PixelPacket* p = image.getPixels(0, 0, 4, 3);
  for (int i = 0; i < 12; ++i) {
    // Red 0, 20, ..., 220; green and blue distinct unless the image is grey.
    p[i].red = static_cast<Magick::Quantum>(i * 20 * 257);
    p[i].green =
        static_cast<Magick::Quantum>((type == Magick::GrayscaleType ? i * 20 : 255 - i * 10) * 257);
    p[i].blue =
        static_cast<Magick::Quantum>((type == Magick::GrayscaleType ? i * 20 : 7 * i) * 257);
    p[i].opacity = static_cast<Magick::Quantum>(alpha ? (i * 5) * 257 : 0);
  }
  image.syncPixels();
  image.type(type);
  image.depth(depth);
  image.magick(format);
  if (format == "JPEG") {
    image.quality(100);
    image.defineValue("jpeg", "sampling-factor", "1x1");  // keeps colours within a few levels
  }
  image.write(format + ":" + path);  // the prefix wins over the name's extension
}

TEST(CxImage, ReportsColourTypesAndPixelBytesOfEachKindOfFile) {
  TempDir dir;
  struct Case {
    std::string name, format;
    Magick::ImageType type;
    bool alpha;
    int depth;
    int32_t colourType;
    bool exact;  // lossless format: bytes must match the pattern
  };
  const Case cases[] = {
      {"grey.png", "PNG", Magick::GrayscaleType, false, 8, 1, true},
      {"grey16.png", "PNG", Magick::GrayscaleType, false, 16, 1, true},
      {"palette.png", "PNG8", Magick::PaletteType, false, 8, 1, true},
      {"rgb.png", "PNG24", Magick::TrueColorType, false, 8, 2, true},
      {"rgba.png", "PNG32", Magick::TrueColorMatteType, true, 8, 4, true},
      {"rgb.bmp", "BMP3", Magick::TrueColorType, false, 8, 2, true},
      {"palette.bmp", "BMP3", Magick::PaletteType, false, 8, 1, true},
      {"rgb.jpg", "JPEG", Magick::TrueColorType, false, 8, 2, false},
      {"grey.jpg", "JPEG", Magick::GrayscaleType, false, 8, 1, false},
  };
  for (const Case& c : cases) {
    WritePattern(dir / c.name, c.format, c.type, c.alpha, c.depth);
    CxImage image;
    ASSERT_TRUE(image.Load(dir / c.name, 0)) << c.name << ": " << image.GetLastError();
    EXPECT_EQ(image.GetWidth(), 4) << c.name;
    EXPECT_EQ(image.GetHeight(), 3) << c.name;
    EXPECT_EQ(image.GetColorType(), c.colourType) << c.name;
    for (int i = 0; i < 12; ++i) {
      const PixelColor p = image.GetPixelColor(i % 4, i / 4, true);
      const bool grey = c.type == Magick::GrayscaleType;
      const int tolerance = c.exact ? 0 : 6;
      EXPECT_NEAR(p.red, i * 20, tolerance) << c.name << " pixel " << i;
      EXPECT_NEAR(p.green, grey ? i * 20 : 255 - i * 10, tolerance) << c.name << " pixel " << i;
      EXPECT_NEAR(p.blue, grey ? i * 20 : 7 * i, tolerance) << c.name << " pixel " << i;
      EXPECT_EQ(p.alpha, c.alpha ? 255 - i * 5 : 255) << c.name << " pixel " << i;
    }
  }
}

TEST(CxImage, LoadsByContentWhenTheNameClaimsAnotherType) {
  TempDir dir;
  WritePattern(dir / "really_png.jpg", "PNG24", Magick::TrueColorType);
  for (int32_t type : {int32_t{kImageTypeJpeg}, int32_t{kImageTypeBmp}, int32_t{0}, int32_t{7}}) {
    CxImage image;
    EXPECT_TRUE(image.Load(dir / "really_png.jpg", type)) << type << ": " << image.GetLastError();
    EXPECT_EQ(image.GetPixelColor(3, 2).red, 220);
  }
}

// A PNG signature, an IHDR chunk claiming width x height, an IDAT with the first rows' worth of
// compressed zero bytes, and IEND.
std::string PngHeader(uint32_t width, uint32_t height) {
  auto be32 = [](uint32_t v) {
    return std::string{static_cast<char>(v >> 24), static_cast<char>(v >> 16),
                       static_cast<char>(v >> 8), static_cast<char>(v)};
  };
  auto chunk = [&](const std::string& type, const std::string& data) {
    const std::string body = type + data;
    const uLong crc = crc32(0, reinterpret_cast<const Bytef*>(body.data()), body.size());
    return be32(static_cast<uint32_t>(data.size())) + body + be32(static_cast<uint32_t>(crc));
  };
  const std::string ihdr = be32(width) + be32(height) + std::string("\x08\x02\x00\x00\x00", 5);
  const std::string raw(300001, '\0');
  std::string compressed(compressBound(raw.size()), '\0');
  uLongf length = compressed.size();
  compress(reinterpret_cast<Bytef*>(compressed.data()), &length,
           reinterpret_cast<const Bytef*>(raw.data()), raw.size());
  compressed.resize(length);
  return std::string("\x89PNG\r\n\x1a\n", 8) + chunk("IHDR", ihdr) + chunk("IDAT", compressed) +
         chunk("IEND", "");
}

TEST(CxImage, RefusesAHugeHeaderBeforeDecodingPixels) {
  TempDir dir;
  test::WriteFileBytes(dir / "huge.png", PngHeader(100000, 100000));
  CxImage image;
  const auto start = std::chrono::steady_clock::now();
  EXPECT_FALSE(image.Load(dir / "huge.png", kImageTypePng));
  EXPECT_LT(std::chrono::steady_clock::now() - start, std::chrono::seconds(5));
  EXPECT_NE(image.GetLastError().find("pixels"), std::string::npos) << image.GetLastError();
}

TEST(CxImage, SavesAtomicallyAndKeepsThePreviousFileWhenASaveFails) {
  TempDir dir;
  CxImage image;
  ASSERT_TRUE(image.Create(5, 2, 24, 0));
  image.Clear(0);
  image.SetPixelColor(4, 1, PixelColor{30, 20, 10, 0});
  for (int32_t type : {kImageTypePng, kImageTypeBmp}) {
    const std::string name = dir / (type == kImageTypePng ? "out.png" : "out.bmp");
    ASSERT_TRUE(image.Save(name, type)) << image.GetLastError();
    CxImage back;
    ASSERT_TRUE(back.Load(name, type));
    EXPECT_EQ(back.GetColorType(), 2);  // written as 24-bit colour although it is nearly black
    EXPECT_EQ(back.GetPixelColor(4, 1).red, 10);
    EXPECT_EQ(back.GetPixelColor(4, 1).blue, 30);
    EXPECT_EQ(back.GetPixelColor(0, 0).green, 0);
  }
  // Only the two results are left: no temporary files.
  EXPECT_EQ(std::distance(std::filesystem::directory_iterator(dir.path()),
                          std::filesystem::directory_iterator{}),
            2);
  const std::string before = test::ReadFileBytes(dir / "out.png");
  EXPECT_FALSE(image.Save(dir / "out.png", kImageTypeUnknown));
  EXPECT_FALSE(image.Save(dir / "missing/out.png", kImageTypePng));
  EXPECT_NE(image.GetLastError().find("missing/out.png"), std::string::npos);
  EXPECT_EQ(test::ReadFileBytes(dir / "out.png"), before);
  EXPECT_FALSE(std::filesystem::exists(dir / "missing"));
}

}  // namespace
}  // namespace marlith
