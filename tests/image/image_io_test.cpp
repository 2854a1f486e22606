#include "image/image_io.h"

#include <Magick++.h>
#include <gtest/gtest.h>
#include <jpeglib.h>
#include <sys/resource.h>
#include <tiffio.h>
#include <zlib.h>

#include <csignal>
#include <cstdio>
#include <filesystem>
#include <functional>

#include "image/image_container.h"
#include "marlith/error.hpp"
#include "support/test_support.h"

namespace marlith {
namespace {

using test::TempDir;

LoadedImage Pattern(int w, int h, int colours, bool alpha, std::vector<double> values) {
  LoadedImage image;
  image.width = w;
  image.height = h;
  image.colourChannels = colours;
  image.hasAlpha = alpha;
  image.planes = std::move(values);
  image.planes.resize(size_t(w) * h * (colours + alpha), 0.0);
  return image;
}

// A big-endian EXIF block whose first directory holds the orientation and a resolution unit.
std::string Exif(int orientation) {
  const char block[] = {'M',  'M',  0,    42,   0, 0, 0, 8, 0, 2,
                        0x01, 0x12, 0,    3,    0, 0, 0, 1, 0, static_cast<char>(orientation),
                        0,    0,    0x01, 0x28, 0, 3, 0, 0, 0, 1,
                        0,    2,    0,    0,    0, 0, 0, 0};
  return std::string(block, sizeof block);
}

// A minimal well-formed RGB display profile: the 128-byte header and an empty tag table.
std::string IccProfile() {
  std::string p(132, '\0');
  p[3] = static_cast<char>(132);
  p.replace(12, 12, "mntrRGB XYZ ");
  p.replace(36, 4, "acsp");
  p[8] = 2, p[9] = 0x10;  // version 2.1
  return p;
}

TEST(ImageIo, RoundTripsKeepChannelsAlphaDepthAndPrecision) {
  TempDir dir;
  struct Case {
    std::string name;
    int colours;
    bool alpha;
    SampleDepth depth;
    double tolerance;    // on the [0, 1] scale
    bool alphaWritten;   // the format holds alpha
    bool lossy = false;  // compared on a flat image
  };
  const double half16 = 0.5 / 65535 + 1e-12, half8 = 0.5 / 255 + 1e-12;
  const Case cases[] = {
      {"grey16.png", 1, false, SampleDepth::k16, half16, true},
      {"rgba16.PNG", 3, true, SampleDepth::k16, half16, true},
      {"greya8.png", 1, true, SampleDepth::k8, half8, true},
      {"rgb16.tif", 3, false, SampleDepth::k16, half16, true},
      {"greya16.tiff", 1, true, SampleDepth::k16, half16, true},
      {"grey16.pgm", 1, false, SampleDepth::k16, half16, false},
      {"rgb8.pnm", 3, false, SampleDepth::k8, half8, false},
      {"rgba.bmp", 3, true, SampleDepth::k8, half8, true},
      {"rgba.jpg", 3, true, SampleDepth::k8, 0.02, false, true},
      {"rgb.webp", 3, false, SampleDepth::k8, 0.03, false, true},
  };
  for (const Case& c : cases) {
    const size_t n = 6 * 5 * (c.colours + c.alpha);
    std::vector<double> values = test::RandomValues(n, 7, 0.0, 1.0);
    if (c.lossy) values.assign(n, 0.4);
    const LoadedImage written = Pattern(6, 5, c.colours, c.alpha, values);
    WriteImageFile(dir / c.name, written, c.depth, 100);
    const LoadedImage read = ReadImageFile(dir / c.name);
    EXPECT_EQ(read.width, 6) << c.name;
    EXPECT_EQ(read.colourChannels, c.colours) << c.name;
    EXPECT_EQ(read.hasAlpha, c.alpha && c.alphaWritten) << c.name;
    EXPECT_EQ(read.depth, c.depth) << c.name;
    ASSERT_EQ(read.planes.size(), 30u * (c.colours + read.hasAlpha)) << c.name;
    for (size_t i = 0; i < read.planes.size(); ++i) {
      ASSERT_NEAR(read.planes[i], written.planes[i], c.tolerance) << c.name << " sample " << i;
    }
  }
}

TEST(ImageIo, FloatTiffKeepsFloatPrecisionAndValuesOutsideTheUnitRange) {
  TempDir dir;
  for (const auto& [colours, alpha] : {std::pair{1, false}, std::pair{3, true}}) {
    const LoadedImage written =
        Pattern(7, 3, colours, alpha, test::RandomValues(21 * (colours + alpha), 3, -5.0, 40.0));
    WriteImageFile(dir / "f.tif", written, SampleDepth::kFloat, 95);
    const LoadedImage read = ReadImageFile(dir / "f.tif");
    EXPECT_EQ(read.depth, SampleDepth::kFloat);
    EXPECT_EQ(read.colourChannels, colours);
    EXPECT_EQ(read.hasAlpha, alpha);
    ASSERT_EQ(read.planes.size(), written.planes.size());
    for (size_t i = 0; i < read.planes.size(); ++i) {
      EXPECT_NEAR(read.planes[i], written.planes[i], std::abs(written.planes[i]) * 6e-8) << i;
    }
  }
}

// A PNG stream of the given chunks (type, data) after the signature, CRCs computed.
std::string Png(std::initializer_list<std::pair<std::string, std::string>> chunks) {
  std::string png("\x89PNG\r\n\x1a\n", 8);
  auto be32 = [&](uint32_t v) {
    for (int shift = 24; shift >= 0; shift -= 8) png += static_cast<char>(v >> shift);
  };
  for (const auto& [type, data] : chunks) {
    be32(static_cast<uint32_t>(data.size()));
    const std::string body = type + data;
    png += body;
    be32(static_cast<uint32_t>(crc32(0, reinterpret_cast<const Bytef*>(body.data()), body.size())));
  }
  return png;
}

TEST(ImageIo, ReadsAPalettePngWithTransparencyAsColourAndAlpha) {
  TempDir dir;
  // 3 x 1, 8-bit palette of blue, red and black, the black entry transparent.
  const std::string row("\0\0\1\2", 4);  // filter byte, then the three indices
  std::string idat(compressBound(row.size()), '\0');
  uLongf length = idat.size();
  compress(reinterpret_cast<Bytef*>(idat.data()), &length,
           reinterpret_cast<const Bytef*>(row.data()), row.size());
  idat.resize(length);
  test::WriteFileBytes(dir / "palette.png",
                       Png({{"IHDR", std::string("\0\0\0\3\0\0\0\1\x08\x03\0\0\0", 13)},
                            {"PLTE", std::string("\0\0\xff\xff\0\0\0\0\0", 9)},
                            {"tRNS", std::string("\xff\xff\0", 3)},
                            {"IDAT", idat},
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

TEST(ImageIo, KeepsIccProfileAndExifByteForByte) {
  TempDir dir;
  for (const char* name : {"m.png", "m.jpg", "m.tif", "m.webp"}) {
    LoadedImage image = Pattern(4, 4, 3, false, std::vector<double>(48, 0.5));
    image.iccProfile = IccProfile();
    image.exif = Exif(1);
    WriteImageFile(dir / name, image, SampleDepth::k8, 90);
    const LoadedImage read = ReadImageFile(dir / name);
    EXPECT_EQ(read.iccProfile, image.iccProfile) << name;
    EXPECT_EQ(read.exif, image.exif) << name;
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
    if (!tiff) withExif.exif = Exif(c.orientation);
    WriteImageFile(dir / c.name, withExif, SampleDepth::k8, 100);
    if (tiff) {  // TIFF says it in its own tag
      Magick::Image image(dir / c.name);
      image.orientation(Magick::RightTopOrientation);
      image.write(dir / c.name);
    }
    const LoadedImage read = ReadImageFile(dir / c.name);
    ASSERT_EQ(read.width, c.width) << c.name;
    ASSERT_EQ(read.planes.size(), 6u) << c.name;
    for (size_t i = 0; i < 6; ++i) EXPECT_NEAR(read.planes[i], c.upright[i], 0.06) << c.name;
    EXPECT_EQ(read.exif, tiff ? "" : Exif(1)) << c.name;
  }
}

TEST(ImageIo, CmykJpegLoadsAsRgbThroughBothReaders) {
  TempDir dir;
  // Written as Photoshop does: Adobe marker, samples inverted (255 is no ink). Pure red (no
  // cyan, full magenta and yellow) and a 50 % black.
  const std::string path = dir / "cmyk.jpg";
  FILE* file = std::fopen(path.c_str(), "wb");
  jpeg_compress_struct c;
  jpeg_error_mgr error;
  c.err = jpeg_std_error(&error);
  jpeg_create_compress(&c);
  jpeg_stdio_dest(&c, file);
  c.image_width = 2, c.image_height = 1, c.input_components = 4, c.in_color_space = JCS_CMYK;
  jpeg_set_defaults(&c);
  jpeg_set_quality(&c, 100, TRUE);
  jpeg_start_compress(&c, TRUE);
  JSAMPLE row[8] = {255, 0, 0, 255, 255, 255, 255, 128};
  JSAMPROW rows[1] = {row};
  jpeg_write_scanlines(&c, rows, 1);
  jpeg_finish_compress(&c);
  jpeg_destroy_compress(&c);
  std::fclose(file);

  const LoadedImage read = ReadImageFile(path);
  ASSERT_EQ(read.colourChannels, 3);
  const double expected[] = {1, 0.5, 0, 0.5, 0, 0.5};  // planar R, G, B of both pixels
  for (int i = 0; i < 6; ++i) EXPECT_NEAR(read.planes[i], expected[i], 0.03) << i;
  CxImage old;
  ASSERT_TRUE(old.Load(path, kImageTypeJpeg)) << old.GetLastError();
  const PixelColor red = old.GetPixelColor(0, 0), grey = old.GetPixelColor(1, 0);
  EXPECT_GE(red.red, 248);
  EXPECT_LE(std::max(red.green, red.blue), 8);
  EXPECT_NEAR(grey.red, 128, 8);
  EXPECT_NEAR(grey.blue, 128, 8);
}

TEST(ImageIo, RefusesBadFilesAndImpossibleWritesNamingTheFile) {
  TempDir dir;
  const LoadedImage rgb = Pattern(4, 4, 3, false, test::RandomValues(48, 1, 0.0, 1.0));
  WriteImageFile(dir / "good.png", rgb, SampleDepth::k8, 90);
  WriteImageFile(dir / "good.tif", rgb, SampleDepth::kFloat, 90);
  const std::string png = test::ReadFileBytes(dir / "good.png");
  const std::string tif = test::ReadFileBytes(dir / "good.tif");
  test::WriteFileBytes(dir / "cut.png", png.substr(0, png.size() / 2));
  test::WriteFileBytes(dir / "cut.tif", tif.substr(0, tif.size() - 100));
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
  LoadedImage shortPlanes = rgb;
  shortPlanes.planes.pop_back();
  std::filesystem::create_directory(dir / "folder.png");
  struct Case {
    std::string file, expected;
    std::function<void()> act;
  };
  auto read = [&](const std::string& name) { return [&dir, name] { ReadImageFile(dir / name); }; };
  auto write = [&](const std::string& name, const LoadedImage& image, SampleDepth depth,
                   int quality = 90) {
    return
        [&dir, name, &image, depth, quality] { WriteImageFile(dir / name, image, depth, quality); };
  };
  auto check = [&](const std::string& name) {
    return [&dir, name] { CheckOutputPath(dir / name); };
  };
  const Case cases[] = {
      {"missing.png", "No such file", read("missing.png")},
      {"folder.png", "directory", read("folder.png")},
      {"empty.png", "empty", read("empty.png")},
      {"noise.png", "noise.png", read("noise.png")},
      {"cut.png", "cut.png", read("cut.png")},
      {"cut.tif", "TIFF", read("cut.tif")},
      {"huge.tif", "pixels", read("huge.tif")},
      {"f.png", "PNG cannot hold float", write("f.png", rgb, SampleDepth::kFloat)},
      {"d.jpg", "JPEG cannot hold 16-bit", write("d.jpg", rgb, SampleDepth::k16)},
      {"q.jpg", "quality of 0", write("q.jpg", rgb, SampleDepth::k8, 0)},
      {"c.pgm", "grey images only", write("c.pgm", rgb, SampleDepth::k8)},
      {"s.png", "47 samples", write("s.png", shortPlanes, SampleDepth::k8)},
      {"x.gif", "unknown image type", write("x.gif", rgb, SampleDepth::k8)},
      {"x.exr", "unknown image type", check("x.exr")},
      {"folder.png", "is a directory", check("folder.png")},
      {"missing/x.png", "does not exist", check("missing/x.png")},
  };
  for (const Case& c : cases) {
    try {
      c.act();
      ADD_FAILURE() << c.file << " was not refused";
    } catch (const Error& e) {
      const std::string message = e.what();
      EXPECT_NE(message.find(c.file), std::string::npos) << message;
      EXPECT_NE(message.find(c.expected), std::string::npos) << message;
      EXPECT_EQ(message.find('\n'), std::string::npos) << message;
    }
  }
  EXPECT_FALSE(std::filesystem::exists(dir / "f.png"));
  EXPECT_NO_THROW(CheckOutputPath(dir / "new.WEBP"));
}

TEST(ImageIo, AFailedWriteLeavesThePreviousFileAndNoTemporary) {
  TempDir dir;
  const LoadedImage small = Pattern(2, 2, 1, false, {0, 1, 1, 0});
  WriteImageFile(dir / "out.png", small, SampleDepth::k8, 90);
  const std::string before = test::ReadFileBytes(dir / "out.png");
  // A file size limit below what a 300 x 300 noise image needs makes the write fail midway.
  std::signal(SIGXFSZ, SIG_IGN);
  rlimit old{};
  getrlimit(RLIMIT_FSIZE, &old);
  rlimit limited = old;
  limited.rlim_cur = 20000;
  setrlimit(RLIMIT_FSIZE, &limited);
  const LoadedImage big = Pattern(300, 300, 3, false, test::RandomValues(270000, 5, 0.0, 1.0));
  for (const char* name : {"out.png", "out.tif"}) {
    if (std::string(name) == "out.tif") test::WriteFileBytes(dir / name, before);
    EXPECT_THROW(WriteImageFile(dir / name, big, SampleDepth::k16, 90), Error) << name;
    EXPECT_EQ(test::ReadFileBytes(dir / name), before) << name;
  }
  setrlimit(RLIMIT_FSIZE, &old);
  EXPECT_EQ(std::distance(std::filesystem::directory_iterator(dir.path()),
                          std::filesystem::directory_iterator{}),
            2);
}

}  // namespace
}  // namespace marlith
