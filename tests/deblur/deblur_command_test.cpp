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

// A 160 x 112 crop of the example photograph, its colour or grey version.
ImagePlanes Sharp(int channels) {
  const ImagePlanes full =
      synthesis::ReadImagePlanes((SourceDir() / "examples/earth_sharp.png").string());
  ImagePlanes crop{{}, 160, 112, channels};
  for (int c = 0; c < channels; ++c)
    for (int y = 0; y < crop.height; ++y)
      for (int x = 0; x < crop.width; ++x) {
        const size_t i = static_cast<size_t>(y + 60) * full.width + x + 100,
                     n = full.planes.size() / 3;
        crop.planes.push_back(channels == 3 ? full.planes[c * n + i]
                                            : 0.3 * full.planes[i] + 0.59 * full.planes[n + i] +
                                                  0.11 * full.planes[2 * n + i]);
      }
  return crop;
}

// The example's 17 x 17 motion kernel (its grey levels).
ImagePlanes Kernel() {
  ImagePlanes k = synthesis::ReadImagePlanes((SourceDir() / "examples/motion_kernel.png").string());
  k.planes.resize(static_cast<size_t>(k.width) * k.height);
  k.channels = 1;
  return k;
}

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

// Writes planes with GraphicsMagick (1 to 4 channels: grey, grey and alpha, RGB, RGBA) at depth
// bits; tweak may set the type, colour space or profiles before writing.
void WriteMagick(const std::string& path, const ImagePlanes& im, int depth,
                 const std::function<void(Magick::Image&)>& tweak = {}) {
  Magick::Image image(Magick::Geometry(im.width, im.height), Magick::Color(0, 0, 0));
  image.modifyImage();
  image.classType(Magick::DirectClass);
  const bool alpha = im.channels == 2 || im.channels == 4;
  image.matte(alpha);
  Magick::PixelPacket* p = image.getPixels(0, 0, im.width, im.height);
  const size_t n = static_cast<size_t>(im.width) * im.height;
  auto q = [&](int c, size_t i) {
    return static_cast<Magick::Quantum>(
        std::lround(std::clamp(im.planes[c * n + i], 0.0, 1.0) * MaxRGB));
  };
  const int colours = alpha ? im.channels - 1 : im.channels;
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

// RGBA samples (interleaved, [0, 1]) of a file read by GraphicsMagick.
ImagePlanes ReadRgba(const std::string& path) {
  Magick::Image image(path);
  ImagePlanes out{std::vector<double>(image.columns() * image.rows() * 4),
                  static_cast<int>(image.columns()), static_cast<int>(image.rows()), 4};
  image.write(0, 0, image.columns(), image.rows(), "RGBA", Magick::DoublePixel, out.planes.data());
  return out;
}

// Channel c of interleaved RGBA as a plane.
std::vector<double> Plane(const ImagePlanes& rgba, int c) {
  std::vector<double> plane;
  for (size_t i = c; i < rgba.planes.size(); i += 4) plane.push_back(rgba.planes[i]);
  return plane;
}
std::vector<double> Colour(const ImagePlanes& rgba, int channels) {
  std::vector<double> planes;
  for (int c = 0; c < channels; ++c) {
    const auto p = Plane(rgba, c);
    planes.insert(planes.end(), p.begin(), p.end());
  }
  return planes;
}

// A grey float32 TIFF; and a TIFF's samples (grey, any depth) with its bits and sample format.
void WriteFloatTiff(const std::string& path, const ImagePlanes& im) {
  TIFF* t = TIFFOpen(path.c_str(), "w");
  ASSERT_TRUE(t);
  TIFFSetField(t, TIFFTAG_IMAGEWIDTH, im.width);
  TIFFSetField(t, TIFFTAG_IMAGELENGTH, im.height);
  TIFFSetField(t, TIFFTAG_SAMPLESPERPIXEL, 1);
  TIFFSetField(t, TIFFTAG_BITSPERSAMPLE, 32);
  TIFFSetField(t, TIFFTAG_SAMPLEFORMAT, SAMPLEFORMAT_IEEEFP);
  TIFFSetField(t, TIFFTAG_PHOTOMETRIC, PHOTOMETRIC_MINISBLACK);
  TIFFSetField(t, TIFFTAG_PLANARCONFIG, PLANARCONFIG_CONTIG);
  for (int y = 0; y < im.height; ++y) {
    std::vector<float> row(im.planes.begin() + y * im.width,
                           im.planes.begin() + (y + 1) * im.width);
    TIFFWriteScanline(t, row.data(), y, 0);
  }
  TIFFClose(t);
}
struct TiffSamples {
  int bits = 0, format = SAMPLEFORMAT_UINT;
  std::vector<double> values;  // floats as stored, integers as integers
};
TiffSamples ReadGreyTiff(const std::string& path) {
  TiffSamples out;
  TIFF* t = TIFFOpen(path.c_str(), "r");
  if (!t) return out;
  uint32_t w = 0, h = 0;
  uint16_t bits = 0, format = SAMPLEFORMAT_UINT, spp = 0;
  TIFFGetField(t, TIFFTAG_IMAGEWIDTH, &w);
  TIFFGetField(t, TIFFTAG_IMAGELENGTH, &h);
  TIFFGetField(t, TIFFTAG_BITSPERSAMPLE, &bits);
  TIFFGetField(t, TIFFTAG_SAMPLESPERPIXEL, &spp);
  TIFFGetFieldDefaulted(t, TIFFTAG_SAMPLEFORMAT, &format);
  out.bits = bits;
  out.format = format;
  std::vector<unsigned char> row(TIFFScanlineSize(t));
  for (uint32_t y = 0; y < h && spp == 1; ++y) {
    TIFFReadScanline(t, row.data(), y, 0);
    for (uint32_t x = 0; x < w; ++x) {
      if (format == SAMPLEFORMAT_IEEEFP && bits == 32)
        out.values.push_back(reinterpret_cast<const float*>(row.data())[x]);
      else if (bits == 16)
        out.values.push_back(reinterpret_cast<const uint16_t*>(row.data())[x]);
    }
  }
  TIFFClose(t);
  return out;
}

// A PNG's bit depth and colour type (0 grey, 2 RGB, 3 palette, 4 grey and alpha, 6 RGBA).
std::pair<int, int> PngHeader(const std::string& path) {
  const std::string bytes = ReadFileBytes(path);
  if (bytes.size() < 26 || bytes.compare(1, 3, "PNG") != 0) return {0, -1};
  return {static_cast<unsigned char>(bytes[24]), static_cast<unsigned char>(bytes[25])};
}

// JPEG segments: the payload of the first APPn segment starting with tag, and a copy of a JPEG
// with a segment inserted after its JFIF header.
std::string JpegSegment(const std::string& jpeg, int app, const std::string& tag) {
  for (size_t i = 2; i + 4 <= jpeg.size() && static_cast<unsigned char>(jpeg[i]) == 0xFF;) {
    const int marker = static_cast<unsigned char>(jpeg[i + 1]);
    const size_t length =
        static_cast<unsigned char>(jpeg[i + 2]) * 256 + static_cast<unsigned char>(jpeg[i + 3]);
    if (marker == 0xE0 + app && jpeg.compare(i + 4, tag.size(), tag) == 0)
      return jpeg.substr(i + 4 + tag.size(), length - 2 - tag.size());
    if (marker == 0xDA) break;
    i += 2 + length;
  }
  return "";
}
std::string WithSegment(const std::string& jpeg, int app, const std::string& payload) {
  size_t at = 2;
  if (static_cast<unsigned char>(jpeg[3]) == 0xE0)
    at += 2 + static_cast<unsigned char>(jpeg[4]) * 256 + static_cast<unsigned char>(jpeg[5]);
  const size_t length = payload.size() + 2;
  std::string segment = {'\xFF', static_cast<char>(0xE0 + app), static_cast<char>(length >> 8),
                         static_cast<char>(length & 0xFF)};
  return jpeg.substr(0, at) + segment + payload + jpeg.substr(at);
}
// A big-endian EXIF block with the orientation tag and the camera's make "Mrl".
std::string Exif(int orientation) {
  return std::string("MM\0*\0\0\0\x08\0\x02", 10) +
         std::string("\x01\x0F\0\x02\0\0\0\x04Mrl\0", 12) +
         std::string("\x01\x12\0\x03\0\0\0\x01\0", 9) + static_cast<char>(orientation) +
         std::string("\0\0\0\0\0\0", 6);
}
// An ICC profile of 256 bytes with a header libpng accepts and no tags.
std::string IccBlock() {
  std::string icc(256, '\0');
  icc[2] = 1;                                         // the length
  icc.replace(8, 4, std::string("\x02\x10\0\0", 4));  // version 2.1
  icc.replace(12, 12, "mntrRGB XYZ ");
  icc.replace(36, 4, "acsp");
  icc.replace(68, 12, std::string("\0\0\xF6\xD6\0\x01\0\0\0\0\xD3\x2D", 12));  // D50
  for (size_t i = 132; i < icc.size(); ++i) icc[i] = static_cast<char>(i * 7);
  return icc;
}

// PSNR gained by the restoration over the blurred image, against sharp (planar, same size).
double Gain(const ImagePlanes& sharp, const ImagePlanes& blurred,
            const std::vector<double>& restored) {
  const int m = 8;
  return synthesis::Psnr(restored, sharp.planes, sharp.width, sharp.height, sharp.channels, m) -
         synthesis::Psnr(blurred.planes, sharp.planes, sharp.width, sharp.height, sharp.channels,
                         m);
}

struct Files {
  TempDir dir;
  std::string kernel = dir / "kernel.png";
  Files() { WriteMagick(kernel, Kernel(), 8); }
};

TEST(DeblurCommand, AnswersHelpVersionAndUsageErrors) {
  Files f;
  const ImagePlanes image = Blurred(Sharp(1));
  WriteMagick(f.dir / "in.png", image, 8);
  const std::string in = f.dir / "in.png";
  struct Row {
    std::vector<std::string> args;
    int exit;
    std::string out, err;  // parts of standard output and error
  };
  const std::vector<Row> rows = {
      {{"--help"}, 0, "Usage: marlith-deblur -k KERNEL", ""},
      {{"-h"}, 0, "Examples:", ""},
      {{"--version"}, 0, "marlith-deblur 0.", ""},
      {{}, 2, "", "Try 'marlith-deblur --help'"},
      {{"-k", f.kernel, "--noise", "0,1", in}, 2, "", "--noise: '0,1'"},
      {{"-k", f.kernel, "--noise", "1%", in}, 2, "", "--noise: '1%'"},
      {{"-k", f.kernel, "--threads", "smooth", in}, 2, "", "--threads: 'smooth'"},
      {{"-k", f.kernel, in, "--jpeg-quality"}, 2, "", "--jpeg-quality"},
      {{"-k", f.kernel, "-o", in, in}, 2, "", "over the image"},
      {{"-k", f.kernel, "-o", f.kernel, in}, 2, "", "over the kernel"},
      {{"-k", f.kernel, "-o", f.dir / "o.png", in, in}, 2, "", "not a folder"},
      {{"-k", f.kernel, "-o", f.dir / "o.jpg", "-d", "16", in}, 2, "", "--depth"},
      {{"-k", f.kernel, "-o", f.dir / "missing/o.png", in}, 1, "", "does not exist"},
      {{"-k", f.kernel, "-o", f.dir / "o.xyz", in}, 1, "", "o.xyz"},
      {{"-k", f.kernel, "-o", f.dir / "o.png", f.dir / "none.png"}, 1, "", "none.png"},
      {{"-k", f.dir / "none.png", "-o", f.dir / "o.png", in}, 1, "", "none.png"},
  };
  const std::string before = ReadFileBytes(in);
  for (const Row& row : rows) {
    std::vector<std::string> args = row.args;
    if (!args.empty() && args[0] == "-k") args.insert(args.begin(), "--progress");
    const ProcessResult r = Deblur(args);
    const std::string what = args.empty() ? "no arguments" : args.back();
    EXPECT_EQ(r.exitCode, row.exit) << what << ": " << r.err;
    EXPECT_TRUE(Has(r.out, row.out) && Has(r.err, row.err)) << what << ": " << r.out << r.err;
    // Refused before the run: no phase of it shown, nothing written.
    if (row.exit != 0) {
      EXPECT_FALSE(Has(r.err, "deconvolution")) << what << ": " << r.err;
    }
  }
  EXPECT_FALSE(fs::exists(f.dir / "o.png"));
  EXPECT_EQ(ReadFileBytes(in), before);
  EXPECT_EQ(ReadFileBytes(f.kernel), ReadFileBytes(f.kernel));
}

TEST(DeblurCommand, KeepsTheDepthAndPrecisionOfTheImage) {
  // A smooth grey image with detail below the 8-bit step, blurred, restored with a fixed noise
  // strength; the same restoration through the API is the reference.
  Files f;
  ImagePlanes sharp = Sharp(1);
  for (size_t i = 0; i < sharp.planes.size(); ++i) sharp.planes[i] = 0.2 + 0.6 * sharp.planes[i];
  const ImagePlanes blurred = Blurred(sharp);
  const ImagePlanes k = Kernel();
  struct Row {
    std::string in, out;
    int bits;
    bool isFloat;
  };
  for (const Row& row : std::vector<Row>{{"in16.png", "out16.png", 16, false},
                                         {"in16.tif", "out16.tif", 16, false},
                                         {"in32.tif", "out32.tif", 32, true}}) {
    ImagePlanes stored = blurred;  // the samples as the file holds them
    for (double& v : stored.planes)
      v = row.isFloat ? static_cast<float>(v) : std::round(v * 65535.0) / 65535.0;
    if (row.isFloat)
      WriteFloatTiff(f.dir / row.in, stored);
    else
      WriteMagick(f.dir / row.in, stored, 16);
    const ProcessResult r =
        Deblur({"-k", f.kernel, "--noise", "0.02", "-o", f.dir / row.out, f.dir / row.in});
    ASSERT_EQ(r.exitCode, 0) << row.in << ": " << r.err;

    std::vector<double> reference(stored.planes.size());
    DeconvolveOptions options;
    options.noise = 0.02;
    Deconvolve(ConstImageView::Planar(stored.planes.data(), sharp.width, sharp.height),
               {k.planes, k.width, k.height},
               ImageView::Planar(reference.data(), sharp.width, sharp.height), options);
    std::vector<double> written;
    if (row.out.ends_with(".png")) {
      EXPECT_EQ(PngHeader(f.dir / row.out), std::make_pair(16, 0)) << row.out;
      written = Plane(ReadRgba(f.dir / row.out), 0);
    } else {
      const TiffSamples t = ReadGreyTiff(f.dir / row.out);
      EXPECT_EQ(t.bits, row.bits) << row.out;
      EXPECT_EQ(t.format, row.isFloat ? SAMPLEFORMAT_IEEEFP : SAMPLEFORMAT_UINT) << row.out;
      written = t.values;
      if (!row.isFloat)
        for (double& v : written) v /= 65535.0;
    }
    ASSERT_EQ(written.size(), reference.size()) << row.out;
    // Float: float32 rounding of samples near 1 (6e-8), far below a 16-bit step (1.5e-5);
    // 16 bits: the rounding to the nearest step, and no 8-bit steps (most samples between them).
    const double tolerance = row.isFloat ? 1e-6 : 0.5 / 65535.0 + 1e-9;
    double worst = 0.0;
    int offEightBitGrid = 0;
    for (size_t i = 0; i < written.size(); ++i) {
      const double expected = row.isFloat ? reference[i] : std::clamp(reference[i], 0.0, 1.0);
      worst = std::max(worst, std::abs(written[i] - expected));
      offEightBitGrid += std::lround(written[i] * 65535.0) % 257 != 0;
    }
    EXPECT_LE(worst, tolerance) << row.out;
    EXPECT_GT(offEightBitGrid, static_cast<int>(written.size()) * 9 / 10) << row.out;
  }
}

TEST(DeblurCommand, RestoresEveryKindOfImageFile) {
  Files f;
  const ImagePlanes colour = Sharp(3), grey = Sharp(1);
  const ImagePlanes blurredColour = Blurred(colour), blurredGrey = Blurred(grey);
  // An alpha plane with every level, so that any change to it shows.
  std::vector<double> alpha(grey.planes.size());
  for (size_t i = 0; i < alpha.size(); ++i) alpha[i] = static_cast<double>(i * 37 % 256) / 255.0;
  auto withAlpha = [&](ImagePlanes im) {
    im.planes.insert(im.planes.end(), alpha.begin(), alpha.end());
    ++im.channels;
    return im;
  };
  // The upright colour image stored turned a quarter left, as a camera held upright stores it
  // with EXIF orientation 6.
  ImagePlanes turned{{}, colour.height, colour.width, 3};
  for (int c = 0; c < 3; ++c)
    for (int y = 0; y < turned.height; ++y)
      for (int x = 0; x < turned.width; ++x)
        turned.planes.push_back(
            blurredColour.planes[(c * colour.height + x) * colour.width + colour.width - 1 - y]);
  struct Row {
    std::string in;
    std::function<void(const std::string&)> write;
    int colourType;  // of the PNG result; -1: a PGM
    bool hasAlpha;
  };
  const std::vector<Row> rows = {
      {"rgb.png", [&](auto p) { WriteMagick(p, blurredColour, 8); }, 2, false},
      {"grey.png", [&](auto p) { WriteMagick(p, blurredGrey, 8); }, 0, false},
      {"grey.pgm", [&](auto p) { WriteMagick(p, blurredGrey, 8); }, -1, false},
      {"rgba.png", [&](auto p) { WriteMagick(p, withAlpha(blurredColour), 8); }, 6, true},
      {"greyalpha.png", [&](auto p) { WriteMagick(p, withAlpha(blurredGrey), 8); }, 4, true},
      {"palette.png",
       [&](auto p) {
         WriteMagick(p, blurredColour, 8, [](Magick::Image& i) {
           i.quantizeColors(256);
           i.quantizeDither(false);
           i.quantize();
           i.magick("PNG8");
         });
       },
       2, false},
      {"cmyk.jpg",
       [&](auto p) {
         std::vector<double> cmyk;  // K = 0, C = 1 - R and so on: (1 - C)(1 - K) gives R back
         for (size_t i = 0; i < grey.planes.size(); ++i)
           for (int c = 0; c < 4; ++c)
             cmyk.push_back(c == 3 ? 0.0 : 1.0 - blurredColour.planes[c * grey.planes.size() + i]);
         Magick::Image image(colour.width, colour.height, "CMYK", Magick::DoublePixel, cmyk.data());
         image.quality(97);
         image.write(p);
       },
       2, false},
      {"turned.jpg",
       [&](auto p) {
         WriteMagick(p, turned, 8);
         WriteFileBytes(p, WithSegment(ReadFileBytes(p), 1, std::string("Exif\0\0", 6) + Exif(6)));
       },
       2, false},
  };
  for (const Row& row : rows) {
    row.write(f.dir / row.in);
    const std::string out = f.dir / ("out-" + row.in.substr(0, row.in.find('.')) +
                                     (row.colourType < 0 ? ".pgm" : ".png"));
    const ProcessResult r = Deblur({"-k", f.kernel, "-o", out, f.dir / row.in});
    ASSERT_EQ(r.exitCode, 0) << row.in << ": " << r.err;
    if (row.colourType >= 0)
      EXPECT_EQ(PngHeader(out).second, row.colourType) << row.in;
    else
      EXPECT_EQ(ReadFileBytes(out).substr(0, 2), "P5") << row.in;
    const ImagePlanes restored = ReadRgba(out);
    ASSERT_EQ(restored.width, colour.width) << row.in;  // upright
    const bool isGrey = row.colourType == 0 || row.colourType == 4 || row.colourType < 0;
    // JPEG's losses (and CMYK's trip) eat some of the gain.
    const double gain = Gain(isGrey ? grey : colour, isGrey ? blurredGrey : blurredColour,
                             Colour(restored, isGrey ? 1 : 3));
    std::printf("%s: %.2f dB gained\n", row.in.c_str(), gain);
    EXPECT_GE(gain, row.in.ends_with(".jpg") ? 1.0 : 2.0) << row.in;
    if (row.hasAlpha) {
      const std::vector<double> kept = Plane(restored, 3);
      for (size_t i = 0; i < alpha.size(); ++i)
        ASSERT_EQ(std::lround(kept[i] * 255.0), std::lround(alpha[i] * 255.0))
            << row.in << " at " << i;
    }
  }
}

TEST(DeblurCommand, KeepsIccProfileAndExifAndWritesTheTypeTheNameSays) {
  Files f;
  const ImagePlanes blurred = Blurred(Sharp(3));
  const std::string icc = IccBlock(), exif = Exif(1);
  WriteMagick(f.dir / "in.jpg", blurred, 8);
  WriteFileBytes(f.dir / "in.jpg",
                 WithSegment(WithSegment(ReadFileBytes(f.dir / "in.jpg"), 2,
                                         std::string("ICC_PROFILE\0\x01\x01", 14) + icc),
                             1, std::string("Exif\0\0", 6) + exif));
  WriteMagick(f.dir / "in.png", blurred, 8,
              [&](Magick::Image& i) { i.iccColorProfile(Magick::Blob(icc.data(), icc.size())); });
  fs::create_directory(f.dir.path() / "folder");
  struct Row {
    std::string in, output, written, magic;  // the output asked for, the file that must appear
  };
  const std::vector<Row> rows = {
      {"in.jpg", "o.JPG", "o.JPG", "\xFF\xD8"},
      {"in.jpg", "o.jpeg", "o.jpeg", "\xFF\xD8"},
      {"in.png", "o.tif", "o.tif", "II*"},
      {"in.png", "o.TIFF", "o.TIFF", "II*"},
      {"in.png", "o.webp", "o.webp", "RIFF"},
      {"in.png", "folder", "folder/in.png", "\x89PNG"},
      {"in.jpg", "", "in-deblurred.jpg", "\xFF\xD8"},
  };
  for (const Row& row : rows) {
    std::vector<std::string> args = {"-k", f.kernel, f.dir / row.in};
    if (!row.output.empty()) args.insert(args.end(), {"-o", f.dir / row.output});
    const ProcessResult r = Deblur(args);
    ASSERT_EQ(r.exitCode, 0) << row.output << ": " << r.err;
    const std::string bytes = ReadFileBytes(f.dir / row.written);
    EXPECT_EQ(bytes.substr(0, row.magic.size()), row.magic) << row.written;
    if (row.written.ends_with(".JPG")) {
      EXPECT_EQ(JpegSegment(bytes, 2, std::string("ICC_PROFILE\0\x01\x01", 14)), icc);
      EXPECT_EQ(JpegSegment(bytes, 1, std::string("Exif\0\0", 6)), exif);
    }
    if (row.written.ends_with(".tif") || row.written.ends_with("in.png")) {
      const Magick::Blob kept = Magick::Image(f.dir / row.written).iccColorProfile();
      EXPECT_EQ(std::string(static_cast<const char*>(kept.data()), kept.length()), icc)
          << row.written;
    }
  }
}

TEST(DeblurCommand, ReadsKernelsOfEveryKind) {
  Files f;
  const ImagePlanes blurred = Blurred(Sharp(1));
  WriteMagick(f.dir / "in.png", blurred, 8);
  const ImagePlanes k = Kernel();
  // The same kernel as a matrix (commas, spaces), a NumPy array, in green, on a grey ground.
  std::string csv, txt, npy = std::string("\x93NUMPY\x01\x00", 8);
  std::string header = "{'descr': '<f8', 'fortran_order': False, 'shape': (" +
                       std::to_string(k.height) + ", " + std::to_string(k.width) + "), }";
  header.resize(118, ' ');
  npy += std::string{static_cast<char>(header.size() + 1), 0} + header + "\n";
  ImagePlanes green{{}, k.width, k.height, 3}, grounded = k, inverted = k;
  green.planes.resize(k.planes.size() * 3, 0.0);
  for (size_t i = 0; i < k.planes.size(); ++i) {
    char number[40];
    std::snprintf(number, sizeof number, "%.17g", k.planes[i]);
    const bool last = (i + 1) % k.width == 0;
    csv += number + std::string(last ? "\n" : ",");
    txt += number + std::string(last ? "\n" : "  ");
    npy.append(reinterpret_cast<const char*>(&k.planes[i]), 8);
    green.planes[k.planes.size() + i] = k.planes[i];
    grounded.planes[i] = (40.0 + std::round(k.planes[i] * 180.0)) / 255.0;
    inverted.planes[i] = 1.0 - k.planes[i];
  }
  WriteFileBytes(f.dir / "k.csv", csv);
  WriteFileBytes(f.dir / "k.txt", txt);
  WriteFileBytes(f.dir / "k.npy", npy);
  WriteMagick(f.dir / "green.png", green, 8);
  WriteMagick(f.dir / "grounded.png", grounded, 8);
  WriteMagick(f.dir / "inverted.png", inverted, 8);

  auto run = [&](const std::string& kernel, const std::string& image, const std::string& out) {
    return Deblur({"-k", kernel, "-d", "16", "-o", f.dir / out, image});
  };
  ASSERT_EQ(run(f.kernel, f.dir / "in.png", "reference.png").exitCode, 0);
  const std::vector<double> reference = Plane(ReadRgba(f.dir / "reference.png"), 0);
  struct Row {
    std::string kernel;
    double tolerance;     // largest difference from the image kernel's result
    std::string warning;  // part of standard error
  };
  for (const Row& row : std::vector<Row>{{"k.csv", 1.01 / 65535, ""},
                                         {"k.txt", 1.01 / 65535, ""},
                                         {"k.npy", 1.01 / 65535, ""},
                                         {"green.png", 1.01 / 65535, ""},
                                         // Its levels rounded at 180 instead of 255 steps.
                                         {"grounded.png", 0.02, "background level"}}) {
    const ProcessResult r = run(f.dir / row.kernel, f.dir / "in.png", "o.png");
    ASSERT_EQ(r.exitCode, 0) << row.kernel << ": " << r.err;
    EXPECT_TRUE(row.warning.empty() ? r.err.empty() : Has(r.err, row.warning)) << r.err;
    const std::vector<double> restored = Plane(ReadRgba(f.dir / "o.png"), 0);
    double worst = 0.0;
    for (size_t i = 0; i < restored.size(); ++i)
      worst = std::max(worst, std::abs(restored[i] - reference[i]));
    EXPECT_LE(worst, row.tolerance) << row.kernel;
  }
  const ProcessResult inv = run(f.dir / "inverted.png", f.dir / "in.png", "o2.png");
  EXPECT_EQ(inv.exitCode, 1);
  EXPECT_TRUE(Has(inv.err, "inverted.png") && Has(inv.err, "invert")) << inv.err;
  const ProcessResult swapped = run(f.dir / "in.png", f.kernel, "o3.png");
  EXPECT_EQ(swapped.exitCode, 1);
  EXPECT_TRUE(Has(swapped.err, "larger than the image") && Has(swapped.err, "swapped"))
      << swapped.err;
  EXPECT_FALSE(fs::exists(f.dir / "o2.png") || fs::exists(f.dir / "o3.png"));
}

TEST(DeblurCommand, RestoresABatchWhereOneImageFails) {
  Files f;
  const ImagePlanes blurred = Blurred(Sharp(3));
  WriteMagick(f.dir / "a.png", blurred, 8);
  WriteMagick(f.dir / "b.jpg", blurred, 8);
  WriteFileBytes(f.dir / "broken.png", "\x89PNG\r\n\x1a\n not really");
  fs::create_directory(f.dir.path() / "out");
  const ProcessResult r = Deblur({"-k", f.kernel, "-o", f.dir / "out/", "--jobs", "2", "-t", "2",
                                  f.dir / "a.png", f.dir / "broken.png", f.dir / "b.jpg"});
  EXPECT_EQ(r.exitCode, 1);
  EXPECT_TRUE(Has(r.err, "broken.png") && Has(r.err, "1 of 3")) << r.err;
  EXPECT_EQ(PngHeader(f.dir / "out/a.png").second, 2);
  EXPECT_EQ(ReadFileBytes(f.dir / "out/b.jpg").substr(0, 2), "\xFF\xD8");
  EXPECT_FALSE(fs::exists(f.dir / "out/broken.png"));
  // Two images of one name would share a result: refused before anything runs.
  fs::create_directory(f.dir.path() / "sub");
  fs::copy_file(f.dir / "a.png", f.dir / "sub/a.png");
  const ProcessResult twice =
      Deblur({"-k", f.kernel, "-o", f.dir / "out", f.dir / "a.png", f.dir / "sub/a.png"});
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
           {"--verbose", {"noise level", "noise strength", "deconvolution ", " s", "160 x 112"}}}) {
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
  // An image large enough that the run is still going when its first progress line is read.
  Files f;
  ImagePlanes big{std::vector<double>(1600 * 1200), 1600, 1200, 1};
  for (size_t i = 0; i < big.planes.size(); ++i) big.planes[i] = (i * 7919 % 1000) / 1000.0;
  WriteMagick(f.dir / "big.png", big, 8);
  int errPipe[2];
  ASSERT_EQ(pipe(errPipe), 0);
  const std::string exe = DeblurExe(), out = f.dir / "o.png", in = f.dir / "big.png";
  const pid_t pid = fork();
  if (pid == 0) {
    dup2(errPipe[1], STDERR_FILENO);
    close(errPipe[0]);
    execl(exe.c_str(), exe.c_str(), "--progress", "-m", "exact", "-t", "1", "-k", f.kernel.c_str(),
          "-o", out.c_str(), in.c_str(), static_cast<char*>(nullptr));
    _exit(127);
  }
  close(errPipe[1]);
  std::string err;
  char buffer[256];
  bool sent = false;
  for (ssize_t n; (n = read(errPipe[0], buffer, sizeof buffer)) > 0;) {
    err.append(buffer, static_cast<size_t>(n));
    if (!sent && (Has(err, "margins") || Has(err, "deconvolution"))) {
      kill(pid, SIGINT);
      sent = true;
    }
  }
  close(errPipe[0]);
  int status = 0;
  waitpid(pid, &status, 0);
  ASSERT_TRUE(sent) << err;
  EXPECT_TRUE(WIFEXITED(status) && WEXITSTATUS(status) == 130) << err;
  EXPECT_TRUE(Has(err, "interrupted")) << err;
  // Nothing written, not even a temporary file.
  std::vector<std::string> left;
  for (const auto& entry : fs::directory_iterator(f.dir.path()))
    left.push_back(entry.path().filename());
  std::sort(left.begin(), left.end());
  EXPECT_EQ(left, (std::vector<std::string>{"big.png", "kernel.png"}));
}

}  // namespace
}  // namespace marlith::test
