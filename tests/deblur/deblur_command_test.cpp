// marlith-deblur end to end: the real executable on image and kernel files made here, read back
// with GraphicsMagick and libtiff rather than marlith's own image layer.
#include <Magick++.h>
#include <gtest/gtest.h>
#include <signal.h>
#include <sys/wait.h>
#include <tiffio.h>
#include <unistd.h>

#include <algorithm>
#include <cmath>
#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <functional>
#include <string>
#include <vector>

#include "bench/synthesis.h"
#include "marlith/deconvolve.hpp"
#include "support/test_support.h"

namespace marlith::test {
namespace {

namespace fs = std::filesystem;
using synthesis::ImagePlanes;

std::string DeblurExe() {
  const char* exe = std::getenv("MARLITH_DEBLUR_EXE");
  return exe ? exe : MARLITH_DEBLUR_EXE;
}
ProcessResult Deblur(const std::vector<std::string>& args) { return RunProcess(DeblurExe(), args); }
bool Has(const std::string& text, const std::string& part) {
  return text.find(part) != std::string::npos;
}

// A 160 x 112 crop of the example photograph, in colour or grey.
ImagePlanes Sharp(int channels) {
  const ImagePlanes full = synthesis::ReadImagePlanes(SourceDir() / "examples/earth_sharp.png");
  const size_t n = full.planes.size() / 3;
  ImagePlanes crop{{}, 160, 112, channels};
  for (int c = 0; c < channels; ++c)
    for (int y = 0; y < crop.height; ++y)
      for (size_t x = 0, i = (y + 60) * full.width + 100; x < 160; ++x, ++i)
        crop.planes.push_back(channels == 3 ? full.planes[c * n + i]
                                            : 0.3 * full.planes[i] + 0.59 * full.planes[n + i] +
                                                  0.11 * full.planes[2 * n + i]);
  return crop;
}

// The example's 17 x 17 motion kernel (its grey levels).
ImagePlanes Kernel() {
  ImagePlanes k = synthesis::ReadImagePlanes(SourceDir() / "examples/motion_kernel.png");
  k.planes.resize(static_cast<size_t>(k.width) * k.height);
  k.channels = 1;
  return k;
}

// sharp blurred by Kernel() (replicated borders) with 0.3 % noise.
ImagePlanes Blurred(const ImagePlanes& sharp) {
  const ImagePlanes k = Kernel();
  std::vector<double> kernel = k.planes;
  double sum = 0.0;
  for (double v : kernel) sum += v;
  for (double& v : kernel) v /= sum;
  ImagePlanes b = sharp;
  b.planes = synthesis::Blur(sharp.planes, sharp.width, sharp.height, sharp.channels, kernel,
                             k.width, k.height, synthesis::BlurBorder::kReplicated);
  synthesis::AddGaussianNoise(b.planes, 0.003, 7);
  for (double& v : b.planes) v = std::clamp(v, 0.0, 1.0);
  return b;
}

// Writes planes (grey, grey and alpha, RGB or RGBA) with GraphicsMagick at depth bits; tweak
// may change the image before it is written.
void WriteMagick(const std::string& path, const ImagePlanes& im, int depth,
                 const std::function<void(Magick::Image&)>& tweak = {}) {
  Magick::Image image(Magick::Geometry(im.width, im.height), Magick::Color(0, 0, 0));
  image.modifyImage();
  image.classType(Magick::DirectClass);
  const bool alpha = im.channels % 2 == 0;
  const int colours = im.channels - alpha;
  image.matte(alpha);
  Magick::PixelPacket* p = image.getPixels(0, 0, im.width, im.height);
  const size_t n = static_cast<size_t>(im.width) * im.height;
  auto q = [&](int c, size_t i) {
    return static_cast<Magick::Quantum>(
        std::lround(std::clamp(im.planes[c * n + i], 0.0, 1.0) * MaxRGB));
  };
  for (size_t i = 0; i < n; ++i) {
    p[i].red = q(0, i);
    p[i].green = q(colours == 3 ? 1 : 0, i);
    p[i].blue = q(colours == 3 ? 2 : 0, i);
    p[i].opacity = alpha ? MaxRGB - q(colours, i) : 0;
  }
  image.syncPixels();
  image.type(colours == 1 ? (alpha ? Magick::GrayscaleMatteType : Magick::GrayscaleType)
                          : (alpha ? Magick::TrueColorMatteType : Magick::TrueColorType));
  image.depth(depth);
  image.quality(97);
  if (tweak) tweak(image);
  image.write(path);
}

// The R, G, B and A planes of a file as GraphicsMagick reads it.
ImagePlanes ReadRgba(const std::string& path) {
  Magick::Image image(path);
  const int w = static_cast<int>(image.columns()), h = static_cast<int>(image.rows());
  ImagePlanes out{std::vector<double>(size_t(w) * h * 4), w, h, 4};
  for (int c = 0; c < 4; ++c)
    image.write(0, 0, w, h, std::string(1, "RGBA"[c]), Magick::DoublePixel,
                &out.planes[size_t(w) * h * c]);
  return out;
}
std::vector<double> Planes(const ImagePlanes& rgba, int from, int count) {
  const size_t n = static_cast<size_t>(rgba.width) * rgba.height;
  return {rgba.planes.begin() + from * n, rgba.planes.begin() + (from + count) * n};
}

// A grey float32 TIFF written, and a grey TIFF's bits, sample format and samples (integers as
// they are) read, with libtiff.
void WriteFloatTiff(const std::string& path, const ImagePlanes& im) {
  TIFF* t = TIFFOpen(path.c_str(), "w");
  for (auto [tag, value] : {std::pair{TIFFTAG_IMAGEWIDTH, im.width},
                            {TIFFTAG_IMAGELENGTH, im.height},
                            {TIFFTAG_BITSPERSAMPLE, 32},
                            {TIFFTAG_SAMPLEFORMAT, SAMPLEFORMAT_IEEEFP},
                            {TIFFTAG_PHOTOMETRIC, PHOTOMETRIC_MINISBLACK}})
    TIFFSetField(t, tag, value);
  for (int y = 0; y < im.height; ++y) {
    const double* from = im.planes.data() + size_t(y) * im.width;
    std::vector<float> row(from, from + im.width);
    TIFFWriteScanline(t, row.data(), y, 0);
  }
  TIFFClose(t);
}
std::vector<double> ReadGreyTiff(const std::string& path, uint16_t& bits, uint16_t& format) {
  TIFF* t = TIFFOpen(path.c_str(), "r");
  uint32_t w = 0, h = 0;
  TIFFGetField(t, TIFFTAG_IMAGEWIDTH, &w);
  TIFFGetField(t, TIFFTAG_IMAGELENGTH, &h);
  TIFFGetField(t, TIFFTAG_BITSPERSAMPLE, &bits);
  TIFFGetFieldDefaulted(t, TIFFTAG_SAMPLEFORMAT, &format);
  std::vector<double> values;
  std::vector<unsigned char> row(TIFFScanlineSize(t));
  for (uint32_t y = 0; y < h; ++y) {
    TIFFReadScanline(t, row.data(), y, 0);
    for (uint32_t x = 0; x < w; ++x)
      values.push_back(bits == 32 ? reinterpret_cast<const float*>(row.data())[x]
                                  : reinterpret_cast<const uint16_t*>(row.data())[x]);
  }
  TIFFClose(t);
  return values;
}

// A PNG's bit depth and colour type (0 grey, 2 RGB, 3 palette, 4 grey and alpha, 6 RGBA).
std::pair<int, int> PngHeader(const std::string& path) {
  const std::string b = ReadFileBytes(path);
  if (b.size() < 26) return {0, -1};
  return {static_cast<unsigned char>(b[24]), static_cast<unsigned char>(b[25])};
}

// The payload after tag of a JPEG's first APPn segment starting with tag; a JPEG with an APPn
// segment added after its JFIF header.
int Byte(const std::string& s, size_t i) { return static_cast<unsigned char>(s[i]); }
std::string JpegSegment(const std::string& jpeg, int app, const std::string& tag) {
  for (size_t i = 2; i + 4 <= jpeg.size() && Byte(jpeg, i) == 0xFF && Byte(jpeg, i + 1) != 0xDA;) {
    const size_t length = Byte(jpeg, i + 2) * 256 + Byte(jpeg, i + 3);
    if (Byte(jpeg, i + 1) == 0xE0 + app && jpeg.compare(i + 4, tag.size(), tag) == 0)
      return jpeg.substr(i + 4 + tag.size(), length - 2 - tag.size());
    i += 2 + length;
  }
  return "";
}
std::string WithSegment(const std::string& jpeg, int app, const std::string& payload) {
  const size_t at = Byte(jpeg, 3) == 0xE0 ? 4 + Byte(jpeg, 4) * 256 + Byte(jpeg, 5) : 2;
  const size_t length = payload.size() + 2;
  return jpeg.substr(0, at) + "\xFF" + static_cast<char>(0xE0 + app) +
         static_cast<char>(length >> 8) + static_cast<char>(length & 0xFF) + payload +
         jpeg.substr(at);
}
// A big-endian EXIF block: the camera's make "Mrl" and the orientation.
std::string Exif(int orientation) {
  return std::string("MM\0*\0\0\0\x08\0\x02\x01\x0F\0\x02\0\0\0\x04Mrl\0\x01\x12\0\x03\0\0\0\x01\0",
                     31) +
         static_cast<char>(orientation) + std::string(6, '\0');
}
// An ICC profile of 256 bytes with a header libpng accepts and no tags.
std::string IccBlock() {
  std::string icc(256, '\0');
  icc[2] = 1;  // the length
  icc.replace(8, 16, std::string("\x02\x10\0\0mntrRGB XYZ ", 16));
  icc.replace(36, 4, "acsp");
  icc.replace(68, 12, std::string("\0\0\xF6\xD6\0\x01\0\0\0\0\xD3\x2D", 12));  // D50
  for (size_t i = 132; i < icc.size(); ++i) icc[i] = static_cast<char>(i * 7);
  return icc;
}

// PSNR gained by the restoration over the blurred image, against sharp (planar, same size).
double Gain(const ImagePlanes& sharp, const ImagePlanes& blurred,
            const std::vector<double>& restored) {
  auto psnr = [&](const std::vector<double>& v) {
    return synthesis::Psnr(v, sharp.planes, sharp.width, sharp.height, sharp.channels, 8);
  };
  return psnr(restored) - psnr(blurred.planes);
}

struct Files {
  TempDir dir;
  std::string kernel = dir / "kernel.png";
  Files() { WriteMagick(kernel, Kernel(), 8); }
};

TEST(DeblurCommand, AnswersHelpAndVersionAndRefusesBeforeTheRun) {
  Files f;
  const std::string in = f.dir / "in.png", out = f.dir / "o.png";
  WriteMagick(in, Blurred(Sharp(1)), 8);
  struct Row {
    std::vector<std::string> args;
    int exit;
    std::string said;  // part of standard output (exit 0) or error
  };
  const std::vector<Row> rows = {
      {{"--help"}, 0, "Usage: marlith-deblur -k KERNEL"},
      {{"--version"}, 0, "marlith-deblur 0."},
      {{}, 2, "Try 'marlith-deblur --help'"},
      {{"-k", f.kernel, "--noise", "0,1", in}, 2, "--noise: '0,1'"},
      {{"-k", f.kernel, "--noise", "1%", in}, 2, "--noise: '1%'"},
      {{"-k", f.kernel, "--threads", "smooth", in}, 2, "--threads: 'smooth'"},
      {{"-k", f.kernel, "--boundary", "1", in}, 2, "--boundary: '1' is not one of smooth"},
      {{"-k", f.kernel, "--bogus", in}, 2, "--bogus"},
      {{"-k", f.kernel, in, "--jpeg-quality"}, 2, "--jpeg-quality"},
      {{"-k", f.kernel, "-o", in, in}, 2, "over the image"},
      {{"-k", f.kernel, "-o", f.kernel, in}, 2, "over the kernel"},
      {{"-k", f.kernel, "-o", out, in, in}, 2, "not a folder"},
      {{"-k", f.kernel, "-o", f.dir / "o.jpg", "-d", "16", in}, 2, "--depth"},
      {{"-k", f.kernel, "-o", f.dir / "missing/o.png", in}, 1, "does not exist"},
      {{"-k", f.kernel, "-o", f.dir / "o.xyz", in}, 1, "o.xyz"},
      {{"-k", f.kernel, "-o", out, f.dir / "none.png"}, 1, "none.png"},
      {{"-k", f.dir / "none.png", "-o", out, in}, 1, "none.png"},
      {{"-k", in, "-o", out, f.kernel}, 1, "swapped"},
  };
  const std::string before = ReadFileBytes(in), kernelBefore = ReadFileBytes(f.kernel);
  for (const Row& row : rows) {
    std::vector<std::string> args = row.args;
    if (!args.empty() && args[0] == "-k") args.insert(args.begin(), "--progress");
    const ProcessResult r = Deblur(args);
    const std::string what = args.empty() ? "no arguments" : args[args.size() / 2];
    EXPECT_EQ(r.exitCode, row.exit) << what << ": " << r.err;
    EXPECT_TRUE(Has(row.exit == 0 ? r.out : r.err, row.said)) << what << ": " << r.out << r.err;
    // Refused before the run: no phase of it shown.
    EXPECT_FALSE(Has(r.err, "deconvolution")) << what << ": " << r.err;
  }
  EXPECT_FALSE(fs::exists(out));
  EXPECT_EQ(ReadFileBytes(in), before);
  EXPECT_EQ(ReadFileBytes(f.kernel), kernelBefore);
}

TEST(DeblurCommand, KeepsTheDepthAndPrecisionOfTheImage) {
  // Detail finer than the 8-bit step, restored with a fixed noise strength; the same
  // restoration through the API is the reference.
  Files f;
  ImagePlanes sharp = Sharp(1);
  for (double& v : sharp.planes) v = 0.2 + 0.6 * v;
  const ImagePlanes blurred = Blurred(sharp), k = Kernel();
  for (const std::string ext : {"16.png", "16.tif", "32.tif"}) {
    const bool isFloat = ext == "32.tif";
    ImagePlanes stored = blurred;  // the samples as the file holds them
    for (double& v : stored.planes)
      v = isFloat ? static_cast<float>(v) : std::round(v * 65535) / 65535;
    if (isFloat)
      WriteFloatTiff(f.dir / ("in" + ext), stored);
    else
      WriteMagick(f.dir / ("in" + ext), stored, 16);
    const std::string out = f.dir / ("out" + ext);
    const ProcessResult r =
        Deblur({"-k", f.kernel, "--noise", "0.02", "-o", out, f.dir / ("in" + ext)});
    ASSERT_EQ(r.exitCode, 0) << ext << ": " << r.err;

    std::vector<double> reference(stored.planes.size()), written;
    DeconvolveOptions options;
    options.noise = 0.02;
    Deconvolve(ConstImageView::Planar(stored.planes.data(), sharp.width, sharp.height),
               {k.planes, k.width, k.height},
               ImageView::Planar(reference.data(), sharp.width, sharp.height), options);
    if (ext.ends_with(".png")) {
      EXPECT_EQ(PngHeader(out), std::make_pair(16, 0));
      written = Planes(ReadRgba(out), 0, 1);
    } else {
      uint16_t bits = 0, format = 0;
      written = ReadGreyTiff(out, bits, format);
      EXPECT_EQ(bits, isFloat ? 32 : 16) << ext;
      EXPECT_EQ(format, isFloat ? SAMPLEFORMAT_IEEEFP : SAMPLEFORMAT_UINT) << ext;
      for (double& v : written) v /= isFloat ? 1.0 : 65535.0;
    }
    ASSERT_EQ(written.size(), reference.size()) << ext;
    // Float: float32 rounding (6e-8 near 1), far below a 16-bit step (1.5e-5). 16 bits: the
    // rounding to the nearest step, and most samples between the 8-bit steps.
    double worst = 0.0;
    size_t offEightBitGrid = 0;
    for (size_t i = 0; i < written.size(); ++i) {
      worst = std::max(
          worst,
          std::abs(written[i] - (isFloat ? reference[i] : std::clamp(reference[i], 0.0, 1.0))));
      offEightBitGrid += std::lround(written[i] * 65535.0) % 257 != 0;
    }
    EXPECT_LE(worst, isFloat ? 1e-6 : 0.5 / 65535.0 + 1e-9) << ext;
    EXPECT_GT(offEightBitGrid, written.size() * 9 / 10) << ext;
  }
}

TEST(DeblurCommand, RestoresEveryKindOfImageFile) {
  Files f;
  const ImagePlanes colour = Sharp(3), grey = Sharp(1);
  const ImagePlanes blurredColour = Blurred(colour), blurredGrey = Blurred(grey);
  const size_t n = grey.planes.size();
  // An alpha plane with every level, so that any change to it shows.
  std::vector<double> alpha(n);
  for (size_t i = 0; i < n; ++i) alpha[i] = static_cast<double>(i * 37 % 256) / 255.0;
  auto withAlpha = [&](ImagePlanes im) {
    im.planes.insert(im.planes.end(), alpha.begin(), alpha.end());
    ++im.channels;
    return im;
  };
  struct Row {
    std::string in;
    std::function<void(const std::string&)> write;
    int colourType;  // of the PNG result; -1: a PGM
  };
  const std::vector<Row> rows = {
      {"rgb.png", [&](auto p) { WriteMagick(p, blurredColour, 8); }, 2},
      {"grey.png", [&](auto p) { WriteMagick(p, blurredGrey, 8); }, 0},
      {"grey.pgm", [&](auto p) { WriteMagick(p, blurredGrey, 8); }, -1},
      {"rgba.png", [&](auto p) { WriteMagick(p, withAlpha(blurredColour), 8); }, 6},
      {"greyalpha.png", [&](auto p) { WriteMagick(p, withAlpha(blurredGrey), 8); }, 4},
  };
  for (const Row& row : rows) {
    row.write(f.dir / row.in);
    const std::string out = f.dir / ("out-" + row.in + (row.colourType < 0 ? ".pgm" : ".png"));
    const ProcessResult r = Deblur({"-k", f.kernel, "-o", out, f.dir / row.in});
    ASSERT_EQ(r.exitCode, 0) << row.in << ": " << r.err;
    if (row.colourType >= 0)
      EXPECT_EQ(PngHeader(out).second, row.colourType) << row.in;
    else
      EXPECT_EQ(ReadFileBytes(out).substr(0, 2), "P5") << row.in;
    const ImagePlanes restored = ReadRgba(out);
    ASSERT_EQ(restored.width, colour.width) << row.in;
    const bool isGrey = row.colourType == 0 || row.colourType == 4 || row.colourType < 0;
    const double gain = Gain(isGrey ? grey : colour, isGrey ? blurredGrey : blurredColour,
                             Planes(restored, 0, isGrey ? 1 : 3));
    std::printf("%s: %.2f dB gained\n", row.in.c_str(), gain);
    EXPECT_GE(gain, 10.0) << row.in;
    if (row.colourType == 4 || row.colourType == 6) {
      const std::vector<double> kept = Planes(restored, 3, 1);
      for (size_t i = 0; i < n; ++i)
        ASSERT_EQ(std::lround(kept[i] * 255.0), std::lround(alpha[i] * 255.0))
            << row.in << " at " << i;
    }
  }
}

TEST(DeblurCommand, KeepsIccProfileAndExifAndWritesTheTypeTheNameSays) {
  Files f;
  const ImagePlanes blurred = Blurred(Sharp(3));
  const std::string icc = IccBlock(), exif = Exif(1), iccTag("ICC_PROFILE\0\x01\x01", 14),
                    exifTag("Exif\0\0", 6);
  WriteMagick(f.dir / "in.jpg", blurred, 8);
  WriteFileBytes(f.dir / "in.jpg",
                 WithSegment(WithSegment(ReadFileBytes(f.dir / "in.jpg"), 2, iccTag + icc), 1,
                             exifTag + exif));
  WriteMagick(f.dir / "in.png", blurred, 8,
              [&](Magick::Image& i) { i.iccColorProfile(Magick::Blob(icc.data(), icc.size())); });
  fs::create_directory(f.dir.path() / "folder");
  struct Row {
    std::string in, output, written, magic;  // the output asked for, the file that must appear
  };
  for (const Row& row : std::vector<Row>{{"in.jpg", "o.JPG", "o.JPG", "\xFF\xD8"},
                                         {"in.jpg", "o.jpeg", "o.jpeg", "\xFF\xD8"},
                                         {"in.png", "o.tif", "o.tif", "II*"},
                                         {"in.png", "o.TIFF", "o.TIFF", "II*"},
                                         {"in.png", "o.webp", "o.webp", "RIFF"},
                                         {"in.png", "folder", "folder/in.png", "\x89PNG"},
                                         {"in.jpg", "", "in-deblurred.jpg", "\xFF\xD8"}}) {
    std::vector<std::string> args = {"-k", f.kernel, f.dir / row.in};
    if (!row.output.empty()) args.insert(args.end(), {"-o", f.dir / row.output});
    const ProcessResult r = Deblur(args);
    ASSERT_EQ(r.exitCode, 0) << row.output << ": " << r.err;
    const std::string bytes = ReadFileBytes(f.dir / row.written);
    EXPECT_EQ(bytes.substr(0, row.magic.size()), row.magic) << row.written;
    if (row.written.ends_with(".JPG")) {
      EXPECT_EQ(JpegSegment(bytes, 2, iccTag), icc);
      EXPECT_EQ(JpegSegment(bytes, 1, exifTag), exif);
    }
    if (row.written.ends_with(".tif") || row.written.ends_with("in.png")) {
      const Magick::Blob kept = Magick::Image(f.dir / row.written).iccColorProfile();
      EXPECT_EQ(std::string(static_cast<const char*>(kept.data()), kept.length()), icc)
          << row.written;
    }
  }
}

TEST(DeblurCommand, RestoresABatchWhereOneImageFails) {
  Files f;
  WriteMagick(f.dir / "a.png", Blurred(Sharp(3)), 8);
  WriteMagick(f.dir / "b.jpg", Blurred(Sharp(3)), 8);
  WriteFileBytes(f.dir / "broken.png", "\x89PNG\r\n\x1a\n not really");
  fs::create_directories(f.dir.path() / "out" / "sub");
  const ProcessResult r = Deblur({"-k", f.kernel, "-o", f.dir / "out/", "--jobs", "2", "-t", "2",
                                  f.dir / "a.png", f.dir / "broken.png", f.dir / "b.jpg"});
  EXPECT_EQ(r.exitCode, 1);
  EXPECT_TRUE(Has(r.err, "broken.png") && Has(r.err, "1 of 3")) << r.err;
  EXPECT_EQ(PngHeader(f.dir / "out/a.png").second, 2);
  EXPECT_EQ(ReadFileBytes(f.dir / "out/b.jpg").substr(0, 2), "\xFF\xD8");
  EXPECT_FALSE(fs::exists(f.dir / "out/broken.png"));
  // Two images of one name would share a result: refused before anything runs.
  const ProcessResult twice =
      Deblur({"-k", f.kernel, "-o", f.dir / "out/sub", f.dir / "a.png", f.dir / "out/a.png"});
  EXPECT_EQ(twice.exitCode, 2);
  EXPECT_TRUE(Has(twice.err, "both")) << twice.err;
}

TEST(DeblurCommand, ReportsAsMuchAsAsked) {
  Files f;
  WriteMagick(f.dir / "in.png", Blurred(Sharp(1)), 8);
  struct Row {
    std::string flag;
    std::vector<std::string> parts;  // of standard error; none: it must be empty
  };
  for (const Row& row : std::vector<Row>{
           {"", {}},
           {"--quiet", {}},
           {"--progress", {"deconvolution", "100 %", "writing"}},
           {"--verbose",
            {"160 x 112", "noise level", "noise strength", "deconvolution ", " s ("}}}) {
    std::vector<std::string> args = {"-k", f.kernel, "-o", f.dir / "o.png", f.dir / "in.png"};
    if (!row.flag.empty()) args.push_back(row.flag);
    const ProcessResult r = Deblur(args);
    EXPECT_EQ(r.exitCode, 0) << row.flag;
    EXPECT_EQ(r.err.empty(), row.parts.empty()) << row.flag << ": " << r.err;
    for (const std::string& part : row.parts)
      EXPECT_TRUE(Has(r.err, part)) << row.flag << ": " << r.err;
  }
}

TEST(DeblurCommand, StopsCleanlyOnInterrupt) {
  // An image large enough that the run still goes on when its first phase is reported.
  Files f;
  ImagePlanes big{std::vector<double>(1600 * 1200), 1600, 1200, 1};
  for (size_t i = 0; i < big.planes.size(); ++i) big.planes[i] = (i * 7919 % 1000) / 1000.0;
  WriteMagick(f.dir / "big.png", big, 8);
  int err[2];
  ASSERT_EQ(pipe(err), 0);
  const std::string exe = DeblurExe(), out = f.dir / "o.png", in = f.dir / "big.png";
  const pid_t pid = fork();
  if (pid == 0) {
    dup2(err[1], STDERR_FILENO);
    close(err[0]);
    execl(exe.c_str(), exe.c_str(), "--progress", "-m", "exact", "-t", "1", "-k", f.kernel.c_str(),
          "-o", out.c_str(), in.c_str(), static_cast<char*>(nullptr));
    _exit(127);
  }
  close(err[1]);
  std::string said;
  char buffer[256];
  bool sent = false;
  for (ssize_t n; (n = read(err[0], buffer, sizeof buffer)) > 0;) {
    said.append(buffer, static_cast<size_t>(n));
    if (!sent && (Has(said, "margins") || Has(said, "deconvolution")))
      sent = kill(pid, SIGINT) == 0;
  }
  close(err[0]);
  int status = 0;
  waitpid(pid, &status, 0);
  ASSERT_TRUE(sent) << said;
  EXPECT_TRUE(WIFEXITED(status) && WEXITSTATUS(status) == 130) << said;
  EXPECT_TRUE(Has(said, "interrupted")) << said;
  // Nothing written, not even a temporary file.
  std::vector<std::string> left;
  for (const auto& entry : fs::directory_iterator(f.dir.path()))
    left.push_back(entry.path().filename());
  std::sort(left.begin(), left.end());
  EXPECT_EQ(left, (std::vector<std::string>{"big.png", "kernel.png"}));
}

}  // namespace
}  // namespace marlith::test
