#include "image/image_io.h"

#include <Magick++.h>
#include <gtest/gtest.h>
#include <sys/resource.h>
#include <tiffio.h>

#include <cmath>
#include <csignal>
#include <cstdlib>
#include <filesystem>
#include <map>
#include <tuple>

#include "image/image_container.h"
#include "image/image_metadata.h"
#include "marlith/error.hpp"
#include "support/test_support.h"

namespace marlith {
namespace {

using test::TempDir;

LoadedImage Pattern(int w, int h, int colours, bool alpha, std::vector<double> values) {
  LoadedImage image;
  std::tie(image.width, image.height, image.colourChannels, image.hasAlpha) =
      std::tuple(w, h, colours, alpha);
  image.planes = std::move(values);
  return image;
}

TEST(ImageIo, RoundTripsKeepTypeChannelsAlphaDepthPrecisionAndMetadata) {
  TempDir dir;
  const std::string icc = test::IccProfile(), exif = test::ExifBlock(1);  // 132 and 38 bytes
  // Where other programs look for EXIF and the ICC profile: PNG's eXIf chunk (its profile is
  // compressed), JPEG's APP1 and APP2 segments, TIFF's Photoshop resource 1058 and ICC tag,
  // WebP's EXIF and ICCP chunks. BMP and PGM/PPM/PNM hold neither.
  const std::map<std::string, std::pair<std::string, std::string>> held = {
      {"\x89PNG", {std::string("\0\0\0\x26\x65XIf", 8) + exif, ""}},
      {"\xFF\xD8",
       {std::string("\xFF\xE1\0\x2E\x45xif\0\0", 10) + exif,
        std::string("\xFF\xE2\0\x94ICC_PROFILE\0\x01\x01", 18) + icc}},
      {"II*", {std::string("8BIM\x04\x22\0\0\0\0\0\x26", 12) + exif, icc}},
      {"RIFF", {std::string("EXIF\x26\0\0\0", 8) + exif, std::string("ICCP\x84\0\0\0", 8) + icc}},
  };
  struct Case {
    std::string name, magic;  // the file's first bytes: the type the name gives
    int colours;
    bool alpha;
    SampleDepth depth;
    double tolerance;    // on the [0, 1] scale; relative for floating point
    bool alphaWritten;   // the format holds alpha
    bool lossy = false;  // compared on a flat image
  };
  const double half16 = 0.5 / 65535 + 1e-12, half8 = 0.5 / 255 + 1e-12, float32 = 6e-8;
  const Case cases[] = {
      {"grey16.png", "\x89PNG", 1, false, SampleDepth::k16, half16, true},
      {"rgba16.PNG", "\x89PNG", 3, true, SampleDepth::k16, half16, true},
      {"greya8.png", "\x89PNG", 1, true, SampleDepth::k8, half8, true},
      {"rgb16.tif", "II*", 3, false, SampleDepth::k16, half16, true},
      {"greya16.TIFF", "II*", 1, true, SampleDepth::k16, half16, true},
      {"greyf.tif", "II*", 1, false, SampleDepth::kFloat, float32, true},
      {"rgbaf.tiff", "II*", 3, true, SampleDepth::kFloat, float32, true},
      {"grey16.pgm", "P5", 1, false, SampleDepth::k16, half16, false},
      {"rgb8.pnm", "P6", 3, false, SampleDepth::k8, half8, false},
      {"rgba.bmp", "BM", 3, true, SampleDepth::k8, half8, true},
      {"rgba.jpeg", "\xFF\xD8", 3, true, SampleDepth::k8, 0.02, false, true},
      {"rgb.webp", "RIFF", 3, false, SampleDepth::k8, 0.03, false, true},
  };
  for (const Case& c : cases) {
    const bool isFloat = c.depth == SampleDepth::kFloat;
    const size_t n = 6 * 5 * (c.colours + c.alpha);
    // Floating-point samples are written unclipped.
    std::vector<double> values = test::RandomValues(n, 7, isFloat ? -5 : 0, isFloat ? 40 : 1);
    if (c.lossy) values.assign(n, 0.4);
    LoadedImage written = Pattern(6, 5, c.colours, c.alpha, values);
    std::tie(written.iccProfile, written.exif) = std::tuple(icc, exif);
    WriteImageFile(dir / c.name, written, c.depth, 100);
    const std::string bytes = test::ReadFileBytes(dir / c.name);
    EXPECT_EQ(bytes.substr(0, c.magic.size()), c.magic) << c.name;
    const auto where = held.find(c.magic);
    const bool keeps = where != held.end();
    EXPECT_TRUE(!keeps || bytes.find(where->second.first) != std::string::npos) << c.name;
    EXPECT_TRUE(!keeps || bytes.find(where->second.second) != std::string::npos) << c.name;
    const LoadedImage read = ReadImageFile(dir / c.name);
    EXPECT_EQ(read.exif, keeps ? exif : "") << c.name;
    // libpng drops an RGB profile from a grey image.
    EXPECT_TRUE(c.colours == 1 || read.iccProfile == (keeps ? icc : "")) << c.name;
    EXPECT_EQ(read.width, 6) << c.name;
    EXPECT_EQ(read.colourChannels, c.colours) << c.name;
    EXPECT_EQ(read.hasAlpha, c.alpha && c.alphaWritten) << c.name;
    EXPECT_EQ(read.depth, c.depth) << c.name;
    ASSERT_EQ(read.planes.size(), 30u * (c.colours + read.hasAlpha)) << c.name;
    for (size_t i = 0; i < read.planes.size(); ++i) {
      const double tolerance = c.tolerance * (isFloat ? std::abs(written.planes[i]) : 1.0);
      ASSERT_NEAR(read.planes[i], written.planes[i], tolerance) << c.name << " sample " << i;
    }
  }
}

TEST(ImageIo, ReadsAPalettePngWithTransparencyAsColourAndAlpha) {
  TempDir dir;
  // 3 x 1, 8-bit palette of blue, red and black, the black entry transparent. The row (a filter
  // byte, then the three indices) as zlib holds it uncompressed: its header, one stored block of
  // 4 bytes, their Adler-32.
  test::WriteFileBytes(
      dir / "palette.png",
      test::PngStream({{"IHDR", std::string("\0\0\0\3\0\0\0\1\x08\x03\0\0\0", 13)},
                       {"PLTE", std::string("\0\0\xff\xff\0\0\0\0\0", 9)},
                       {"tRNS", std::string("\xff\xff\0", 3)},
                       {"IDAT", std::string("\x78\x01\x01\x04\0\xFB\xFF\0\0\1\2\0\x08\0\x04", 15)},
                       {"IEND", ""}}));
  const LoadedImage read = ReadImageFile(dir / "palette.png");
  ASSERT_EQ(read.colourChannels, 3);
  ASSERT_TRUE(read.hasAlpha);
  const std::vector<double> expected = {0, 1, 0, 0, 0, 0, 1, 0, 0, 1, 1, 0};  // R, G, B, alpha
  ASSERT_EQ(read.planes.size(), expected.size());
  for (size_t i = 0; i < expected.size(); ++i) {
    if (i == 2 || i == 5 || i == 8) continue;  // a transparent pixel's colour is free
    EXPECT_EQ(read.planes[i], expected[i]) << i;
  }
}

TEST(ImageIo, TurnsImagesUprightByTheirOrientation) {
  TempDir dir;
  // Stored 3 x 2 with 1 at the top left and 0.5 at the top right. Upright, by what EXIF says
  // stored row 0 and column 0 are: 3 bottom and right; 5 left side and top; 6 right side and
  // top; 8 left side and bottom.
  const LoadedImage stored = Pattern(3, 2, 1, false, {1.0, 0.0, 0.5, 0.0, 0.0, 0.0});
  struct Case {
    std::string name;
    int orientation, width;
    std::vector<double> upright;
  };
  const Case cases[] = {
      {"3.png", 3, 3, {0, 0, 0, 0.5, 0, 1}}, {"5.png", 5, 2, {1, 0, 0, 0, 0.5, 0}},
      {"8.png", 8, 2, {0.5, 0, 0, 0, 1, 0}}, {"6.jpg", 6, 2, {0, 1, 0, 0, 0, 0.5}},
      {"6.tif", 6, 2, {0, 1, 0, 0, 0, 0.5}},
  };
  for (const Case& c : cases) {
    const bool tiff = c.name.ends_with(".tif");
    LoadedImage withExif = stored;
    if (!tiff) withExif.exif = test::ExifBlock(c.orientation);
    WriteImageFile(dir / c.name, withExif, SampleDepth::k8, 100);
    if (tiff) {  // TIFF says it in its own tag
      Magick::InitializeMagick(nullptr);
      Magick::Image image(dir / c.name);
      image.orientation(Magick::RightTopOrientation);
      image.write(dir / c.name);
    }
    const LoadedImage read = ReadImageFile(dir / c.name);
    ASSERT_EQ(read.width, c.width) << c.name;
    ASSERT_EQ(read.planes.size(), 6u) << c.name;
    for (size_t i = 0; i < 6; ++i) EXPECT_NEAR(read.planes[i], c.upright[i], 0.06) << c.name;
    // A TIFF's orientation is its own tag; the EXIF block made of its other tags has none.
    if (tiff) {
      EXPECT_EQ(ExifOrientation(read.exif), 0) << c.name;
    } else {
      EXPECT_EQ(read.exif, test::ExifBlock(1)) << c.name;
    }
  }
}

TEST(ImageIo, CmykJpegLoadsAsRgbThroughBothReaders) {
  TempDir dir;
  // GraphicsMagick writes CMYK as Photoshop does: Adobe marker, samples inverted (255 is no
  // ink). Red is no cyan, full magenta and yellow; 50 % grey becomes 50 % of each ink.
  const std::string path = dir / "cmyk.jpg";
  ASSERT_EQ(std::system(("gm convert -size 1x1 xc:red xc:gray50 +append -colorspace CMYK "
                         "-quality 100 " +
                         path)
                            .c_str()),
            0);
  const LoadedImage read = ReadImageFile(path);
  ASSERT_EQ(read.colourChannels, 3);
  const double expected[] = {1, 0.25, 0, 0.25, 0, 0.25};  // planar R, G, B of both pixels
  for (int i = 0; i < 6; ++i) EXPECT_NEAR(read.planes[i], expected[i], 0.03) << i;
  CxImage old;
  ASSERT_TRUE(old.Load(path, kImageTypeJpeg)) << old.GetLastError();
  const PixelColor red = old.GetPixelColor(0, 0), grey = old.GetPixelColor(1, 0);
  EXPECT_GE(red.red, 248);
  EXPECT_LE(std::max(red.green, red.blue), 8);
  EXPECT_NEAR(grey.red, 64, 8);
  EXPECT_NEAR(grey.blue, 64, 8);
}

TEST(ImageIo, RefusesBadFilesAndImpossibleWritesNamingTheFile) {
  TempDir dir;
  const LoadedImage rgb = Pattern(4, 4, 3, false, test::RandomValues(48, 1, 0.0, 1.0));
  WriteImageFile(dir / "cut.png", rgb, SampleDepth::k8, 90);
  WriteImageFile(dir / "cut.tif", rgb, SampleDepth::kFloat, 90);
  WriteImageFile(dir / "cut.jpg", rgb, SampleDepth::k8, 90);
  std::filesystem::resize_file(dir / "cut.jpg", 200);
  std::filesystem::resize_file(dir / "cut.png", std::filesystem::file_size(dir / "cut.png") / 2);
  std::filesystem::resize_file(dir / "cut.tif", std::filesystem::file_size(dir / "cut.tif") - 100);
  test::WriteFileBytes(dir / "empty.png", "");
  test::WriteFileBytes(dir / "noise.png", "\x01\x02not an image at all");
  {  // A TIFF directory claiming 100000 x 100000 pixels and no data.
    TIFF* t = TIFFOpen((dir / "huge.tif").c_str(), "w");
    TIFFSetField(t, TIFFTAG_IMAGEWIDTH, 100000);
    TIFFSetField(t, TIFFTAG_IMAGELENGTH, 100000);
    TIFFSetField(t, TIFFTAG_BITSPERSAMPLE, 32);
    TIFFSetField(t, TIFFTAG_SAMPLEFORMAT, SAMPLEFORMAT_IEEEFP);
    TIFFSetField(t, TIFFTAG_ROWSPERSTRIP, 100000);
    TIFFWriteRawStrip(t, 0, const_cast<char*>("data"), 4);
    TIFFWriteDirectory(t);
    TIFFClose(t);
  }
  std::filesystem::create_directory(dir / "folder.png");
  const std::pair<std::string, std::string> unread[] = {
      {"missing.png", "No such file"}, {"folder.png", "directory"}, {"empty.png", "empty"},
      {"noise.png", "noise.png"},      {"cut.png", "cut.png"},      {"cut.tif", "TIFF"},
      {"huge.tif", "pixels"},          {"cut.jpg", "cut.jpg"},
  };
  for (const auto& refusal : unread)
    test::ExpectRefused([&] { ReadImageFile(dir / refusal.first); }, refusal.first, refusal.second);
  try {  // GraphicsMagick's reason without its "Magick:" and "reported by <source> (<function>)"
    ReadImageFile(dir / "cut.jpg");
  } catch (const Error& e) {
    const std::string message = e.what();
    EXPECT_EQ(message.rfind(dir / "cut.jpg: ", 0), 0u) << message;
    for (const char* internal : {"Magick", "reported by", ".c:", "()"})
      EXPECT_EQ(message.find(internal), std::string::npos) << message;
  }
  auto write = [&](const std::string& file, const LoadedImage& image, SampleDepth depth,
                   int quality, const std::string& why) {
    test::ExpectRefused([&] { WriteImageFile(dir / file, image, depth, quality); }, file, why);
  };
  write("f.png", rgb, SampleDepth::kFloat, 90, "PNG cannot hold float");
  write("d.jpg", rgb, SampleDepth::k16, 90, "JPEG cannot hold 16-bit");
  write("q.jpg", rgb, SampleDepth::k8, 0, "quality of 0");
  write("c.pgm", rgb, SampleDepth::k8, 90, "grey images only");
  const LoadedImage shortPlanes = Pattern(4, 4, 3, false, test::RandomValues(47, 1, 0.0, 1.0));
  write("s.png", shortPlanes, SampleDepth::k8, 90, "47 samples");
  write("x.gif", rgb, SampleDepth::k8, 90, "unknown image type");
  test::ExpectRefused([&] { CheckOutputPath(dir / "x.exr"); }, "x.exr", "unknown image type");
  test::ExpectRefused([&] { CheckOutputPath(dir / "folder.png"); }, "folder.png", "is a directory");
  EXPECT_FALSE(std::filesystem::exists(dir / "f.png"));
  EXPECT_NO_THROW(CheckOutputPath(dir / "new.WEBP"));
}

TEST(ImageIo, AFailedWriteLeavesThePreviousFileAndNoTemporary) {
  TempDir dir;
  WriteImageFile(dir / "out.png", Pattern(2, 2, 1, false, {0, 1, 1, 0}), SampleDepth::k8, 90);
  const std::string before = test::ReadFileBytes(dir / "out.png");
  // A file size limit below what a 300 x 300 noise image needs makes the write fail midway.
  std::signal(SIGXFSZ, SIG_IGN);
  rlimit old{};
  getrlimit(RLIMIT_FSIZE, &old);
  const rlimit limited{20000, old.rlim_max};
  setrlimit(RLIMIT_FSIZE, &limited);
  const LoadedImage big = Pattern(300, 300, 3, false, test::RandomValues(270000, 5, 0.0, 1.0));
  EXPECT_THROW(WriteImageFile(dir / "out.png", big, SampleDepth::k16, 90), Error);
  setrlimit(RLIMIT_FSIZE, &old);
  EXPECT_EQ(test::ReadFileBytes(dir / "out.png"), before);
  EXPECT_EQ(std::distance(std::filesystem::directory_iterator(dir.path()),
                          std::filesystem::directory_iterator{}),
            1);
}

}  // namespace
}  // namespace marlith
