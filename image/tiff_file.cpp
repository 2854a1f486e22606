#include "image/tiff_file.h"

#include <tiffio.h>

#include <algorithm>
#include <cmath>
#include <cstdarg>
#include <cstdint>
#include <cstdio>
#include <cstring>
#include <limits>
#include <memory>
#include <vector>

#include "image/image_metadata.h"
#include "marlith/error.hpp"

namespace marlith {
namespace {

// A TIFF file in memory for libtiff's client procedures: read from bytes, or written into data.
struct MemoryStream {
  std::string_view bytes;  // the file being read
  std::string data;        // the file being written
  bool writing = false;
  uint64_t position = 0;
  std::string error;  // libtiff's first error message

  std::string_view Contents() const { return writing ? std::string_view(data) : bytes; }
};

MemoryStream& StreamOf(thandle_t handle) { return *static_cast<MemoryStream*>(handle); }

tmsize_t ReadProc(thandle_t handle, void* buffer, tmsize_t size) {
  MemoryStream& s = StreamOf(handle);
  const std::string_view contents = s.Contents();
  if (size < 0) return -1;
  if (s.position >= contents.size()) return 0;
  const uint64_t n = std::min<uint64_t>(static_cast<uint64_t>(size), contents.size() - s.position);
  std::memcpy(buffer, contents.data() + s.position, n);
  s.position += n;
  return static_cast<tmsize_t>(n);
}

tmsize_t WriteProc(thandle_t handle, void* buffer, tmsize_t size) {
  MemoryStream& s = StreamOf(handle);
  if (!s.writing || size < 0) return -1;
  const uint64_t end = s.position + static_cast<uint64_t>(size);
  if (end > s.data.size()) s.data.resize(end);
  std::memcpy(s.data.data() + s.position, buffer, static_cast<size_t>(size));
  s.position = end;
  return size;
}

toff_t SeekProc(thandle_t handle, toff_t offset, int whence) {
  MemoryStream& s = StreamOf(handle);
  // libtiff passes negative relative offsets as wrapped unsigned values, as lseek would take them.
  const int64_t relative = static_cast<int64_t>(offset);
  const int64_t base = whence == SEEK_CUR   ? static_cast<int64_t>(s.position)
                       : whence == SEEK_END ? static_cast<int64_t>(s.Contents().size())
                                            : 0;
  if ((relative < 0 && base + relative < 0) || (relative > 0 && relative > INT64_MAX - base)) {
    return static_cast<toff_t>(-1);
  }
  s.position = static_cast<uint64_t>(base + relative);
  return s.position;
}

int CloseProc(thandle_t) { return 0; }
toff_t SizeProc(thandle_t handle) { return StreamOf(handle).Contents().size(); }
int MapProc(thandle_t, void**, toff_t*) { return 0; }
void UnmapProc(thandle_t, void*, toff_t) {}

int OnError(TIFF*, void* userData, const char* module, const char* format, va_list arguments) {
  std::string& error = *static_cast<std::string*>(userData);
  if (!error.empty()) return 1;  // the first error is the cause; later ones follow from it
  char text[512];
  std::vsnprintf(text, sizeof text, format, arguments);
  error = std::string(module ? module : "libtiff") + ": " + text;
  std::replace(error.begin(), error.end(), '\n', ' ');
  return 1;
}

// Warnings (unknown tags and the like) are no reason to refuse a file, and marlith prints nothing
// on its own.
int OnWarning(TIFF*, void*, const char*, const char*, va_list) { return 1; }

using TiffHandle = std::unique_ptr<TIFF, decltype(&TIFFClose)>;

// Opens stream with libtiff, its messages going to stream.error instead of standard error.
TiffHandle Open(MemoryStream& stream, const char* mode, const std::string& path) {
  TIFFOpenOptions* options = TIFFOpenOptionsAlloc();
  TIFFOpenOptionsSetErrorHandlerExtR(options, OnError, &stream.error);
  TIFFOpenOptionsSetWarningHandlerExtR(options, OnWarning, nullptr);
  TIFF* tif = TIFFClientOpenExt(path.c_str(), mode, &stream, ReadProc, WriteProc, SeekProc,
                                CloseProc, SizeProc, MapProc, UnmapProc, options);
  TIFFOpenOptionsFree(options);
  return TiffHandle(tif, TIFFClose);
}

[[noreturn]] void Fail(const std::string& path, const MemoryStream& stream, const char* what) {
  throw Error(path + ": " + what + (stream.error.empty() ? "" : " (" + stream.error + ")"));
}

// A working buffer for one strip row or tile. Refused above 1 GiB: no sane file needs that much
// for one piece, and a forged header could otherwise make us take it.
// needed is a double so that a forged size cannot overflow it.
std::vector<uint8_t> PieceBuffer(tmsize_t size, double needed, const std::string& path) {
  constexpr tmsize_t kLimit = tmsize_t{1} << 30;
  if (size <= 0 || static_cast<double>(size) < needed || size > kLimit) {
    throw Error(path + ": the TIFF file's strip or tile layout is not readable");
  }
  return std::vector<uint8_t>(static_cast<size_t>(size));
}

// Reads the floating-point samples of the open TIFF into image (grey or RGB, the first extra
// sample as alpha), strips or tiles, samples interleaved or in separate planes.
void ReadFloatPixels(TIFF* tif, const MemoryStream& stream, const std::string& path, uint32_t width,
                     uint32_t height, uint16_t bits, LoadedImage& image) {
  uint16_t samplesPerPixel = 1, photometric = 0, planar = PLANARCONFIG_CONTIG, extraCount = 0;
  uint16_t* extraTypes = nullptr;
  TIFFGetFieldDefaulted(tif, TIFFTAG_SAMPLESPERPIXEL, &samplesPerPixel);
  TIFFGetFieldDefaulted(tif, TIFFTAG_PLANARCONFIG, &planar);
  TIFFGetField(tif, TIFFTAG_EXTRASAMPLES, &extraCount, &extraTypes);
  const bool hasPhotometric = TIFFGetField(tif, TIFFTAG_PHOTOMETRIC, &photometric) == 1;
  const int colours = !hasPhotometric                         ? 0
                      : photometric == PHOTOMETRIC_MINISBLACK ? 1
                      : photometric == PHOTOMETRIC_RGB        ? 3
                                                              : 0;
  if (colours == 0 || samplesPerPixel < colours) {
    throw Error(path + ": floating-point TIFF samples are read as grey or RGB (plus extra " +
                "samples) only; this file has photometric interpretation " +
                (hasPhotometric ? std::to_string(photometric) : std::string("(none)")) + " and " +
                std::to_string(samplesPerPixel) + " samples per pixel");
  }
  const bool hasAlpha = samplesPerPixel > colours;
  const bool associated =
      hasAlpha && extraCount >= 1 && extraTypes && extraTypes[0] == EXTRASAMPLE_ASSOCALPHA;
  const int planeCount = colours + (hasAlpha ? 1 : 0);
  const size_t planeSize = size_t{width} * height;
  image.width = static_cast<int>(width);
  image.height = static_cast<int>(height);
  image.colourChannels = colours;
  image.hasAlpha = hasAlpha;
  image.depth = SampleDepth::kFloat;
  image.planes.assign(planeSize * planeCount, 0.0);

  const size_t sampleBytes = bits / 8;
  const bool separate = planar == PLANARCONFIG_SEPARATE;
  // Samples per pixel in one piece read, and how many pieces (planes) there are to read.
  const uint64_t perPixel = separate ? 1 : samplesPerPixel;
  const int passes = separate ? planeCount : 1;
  // Copies a piece (a row or a tile) whose top left pixel is (x0, y0) into the planes.
  auto store = [&](const uint8_t* piece, int firstPlane, uint32_t x0, uint32_t y0,
                   uint32_t pieceWidth, uint32_t pieceHeight) {
    const int planesHere = std::min<int>(static_cast<int>(perPixel), planeCount - firstPlane);
    for (uint32_t y = 0; y < pieceHeight && y0 + y < height; ++y) {
      for (uint32_t x = 0; x < pieceWidth && x0 + x < width; ++x) {
        const uint8_t* pixel = piece + (uint64_t{y} * pieceWidth + x) * perPixel * sampleBytes;
        for (int s = 0; s < planesHere; ++s) {
          double v;
          if (bits == 32) {
            float f;
            std::memcpy(&f, pixel + s * sampleBytes, sizeof f);
            v = f;
          } else {
            std::memcpy(&v, pixel + s * sampleBytes, sizeof v);
          }
          image.planes[(firstPlane + s) * planeSize + size_t{y0 + y} * width + x0 + x] = v;
        }
      }
    }
  };

  if (TIFFIsTiled(tif)) {
    uint32_t tileWidth = 0, tileHeight = 0;
    TIFFGetField(tif, TIFFTAG_TILEWIDTH, &tileWidth);
    TIFFGetField(tif, TIFFTAG_TILELENGTH, &tileHeight);
    if (tileWidth == 0 || tileHeight == 0) Fail(path, stream, "the TIFF file's tiles have no size");
    std::vector<uint8_t> tile = PieceBuffer(
        TIFFTileSize(tif), double{1.0} * tileWidth * tileHeight * perPixel * sampleBytes, path);
    for (int pass = 0; pass < passes; ++pass)
      for (uint32_t y = 0; y < height; y += tileHeight)
        for (uint32_t x = 0; x < width; x += tileWidth) {
          if (TIFFReadTile(tif, tile.data(), x, y, 0, static_cast<uint16_t>(pass)) < 0) {
            Fail(path, stream, "the TIFF file's pixel data is unreadable");
          }
          store(tile.data(), pass, x, y, tileWidth, tileHeight);
        }
  } else {
    std::vector<uint8_t> row =
        PieceBuffer(TIFFScanlineSize(tif), double{1.0} * width * perPixel * sampleBytes, path);
    for (int pass = 0; pass < passes; ++pass)
      for (uint32_t y = 0; y < height; ++y) {
        if (TIFFReadScanline(tif, row.data(), y, static_cast<uint16_t>(pass)) < 0) {
          Fail(path, stream, "the TIFF file's pixel data is unreadable");
        }
        store(row.data(), pass, 0, y, width, 1);
      }
  }

  if (associated) {
    // Stored premultiplied by alpha; LoadedImage holds straight colour. Where alpha is 0 there
    // is no colour to recover and the stored value (0) stays.
    const double* alpha = image.planes.data() + colours * planeSize;
    for (size_t i = 0; i < planeSize; ++i) {
      if (alpha[i] == 0.0) continue;
      for (int c = 0; c < colours; ++c) image.planes[c * planeSize + i] /= alpha[i];
    }
  }
}

}  // namespace

bool LooksLikeTiff(std::string_view bytes) {
  return bytes.starts_with(std::string_view("II*\0", 4)) ||
         bytes.starts_with(std::string_view("MM\0*", 4)) ||
         bytes.starts_with(std::string_view("II+\0", 4)) ||
         bytes.starts_with(std::string_view("MM\0+", 4));
}

TiffContents ReadTiff(std::string_view bytes, const std::string& path) {
  MemoryStream stream;
  stream.bytes = bytes;
  // "m": no memory mapping, the procedures above serve every read.
  const TiffHandle tif = Open(stream, "rm", path);
  if (!tif) Fail(path, stream, "not a readable TIFF file");
  uint32_t width = 0, height = 0;
  TIFFGetField(tif.get(), TIFFTAG_IMAGEWIDTH, &width);
  TIFFGetField(tif.get(), TIFFTAG_IMAGELENGTH, &height);
  if (width < 1 || height < 1 || int64_t{width} * height > kMaxImagePixels) {
    throw Error(path + ": an image of " + std::to_string(width) + " x " + std::to_string(height) +
                " pixels is outside the accepted 1 to " + std::to_string(kMaxImagePixels) +
                " pixels");
  }
  TiffContents out;
  uint32_t count = 0;
  void* data = nullptr;
  if (TIFFGetField(tif.get(), TIFFTAG_ICCPROFILE, &count, &data) == 1 && data) {
    out.image.iccProfile.assign(static_cast<const char*>(data), count);
  }
  if (TIFFGetField(tif.get(), TIFFTAG_PHOTOSHOP, &count, &data) == 1 && data) {
    out.image.exif =
        ExifFromPhotoshopResources(std::string_view(static_cast<const char*>(data), count));
  }
  uint16_t orientation = ORIENTATION_TOPLEFT, format = SAMPLEFORMAT_UINT, bits = 1;
  TIFFGetFieldDefaulted(tif.get(), TIFFTAG_ORIENTATION, &orientation);
  TIFFGetFieldDefaulted(tif.get(), TIFFTAG_SAMPLEFORMAT, &format);
  TIFFGetFieldDefaulted(tif.get(), TIFFTAG_BITSPERSAMPLE, &bits);
  out.orientation = orientation >= 1 && orientation <= 8 ? orientation : 1;
  if (format != SAMPLEFORMAT_IEEEFP || (bits != 32 && bits != 64)) return out;
  ReadFloatPixels(tif.get(), stream, path, width, height, bits, out.image);
  out.pixelsRead = true;
  return out;
}

std::string EncodeTiff(const LoadedImage& image, SampleDepth depth, const std::string& path) {
  const uint32_t width = static_cast<uint32_t>(image.width);
  const uint32_t height = static_cast<uint32_t>(image.height);
  const uint16_t samplesPerPixel = static_cast<uint16_t>(image.colourChannels + image.hasAlpha);
  const uint16_t bits = depth == SampleDepth::k8 ? 8 : depth == SampleDepth::k16 ? 16 : 32;
  const size_t sampleBytes = bits / 8;
  const size_t planeSize = size_t{width} * height;
  // Classic TIFF addresses 4 GiB; larger results (possible at the pixel limit) need BigTIFF.
  const bool big = planeSize * samplesPerPixel * sampleBytes > (uint64_t{3} << 30);

  MemoryStream stream;
  stream.writing = true;
  TiffHandle tif = Open(stream, big ? "w8" : "w", path);
  if (!tif) Fail(path, stream, "cannot start the TIFF file");
  TIFF* t = tif.get();
  TIFFSetField(t, TIFFTAG_IMAGEWIDTH, width);
  TIFFSetField(t, TIFFTAG_IMAGELENGTH, height);
  TIFFSetField(t, TIFFTAG_BITSPERSAMPLE, bits);
  TIFFSetField(t, TIFFTAG_SAMPLESPERPIXEL, samplesPerPixel);
  TIFFSetField(t, TIFFTAG_SAMPLEFORMAT,
               depth == SampleDepth::kFloat ? SAMPLEFORMAT_IEEEFP : SAMPLEFORMAT_UINT);
  TIFFSetField(t, TIFFTAG_PHOTOMETRIC,
               image.colourChannels == 1 ? PHOTOMETRIC_MINISBLACK : PHOTOMETRIC_RGB);
  TIFFSetField(t, TIFFTAG_PLANARCONFIG, PLANARCONFIG_CONTIG);
  TIFFSetField(t, TIFFTAG_ORIENTATION, ORIENTATION_TOPLEFT);
  TIFFSetField(t, TIFFTAG_COMPRESSION, COMPRESSION_ADOBE_DEFLATE);
  // Horizontal differencing helps Deflate on integer photographs; float samples are left as
  // they are (the floating-point predictor is not read by every program).
  if (depth != SampleDepth::kFloat) TIFFSetField(t, TIFFTAG_PREDICTOR, PREDICTOR_HORIZONTAL);
  if (image.hasAlpha) {
    const uint16_t extra = EXTRASAMPLE_UNASSALPHA;
    TIFFSetField(t, TIFFTAG_EXTRASAMPLES, 1, &extra);
  }
  TIFFSetField(t, TIFFTAG_ROWSPERSTRIP, TIFFDefaultStripSize(t, 0));
  if (!image.iccProfile.empty()) {
    TIFFSetField(t, TIFFTAG_ICCPROFILE, static_cast<uint32_t>(image.iccProfile.size()),
                 image.iccProfile.data());
  }
  if (!image.exif.empty()) {
    const std::string resources = PhotoshopResourcesWithExif(image.exif);
    TIFFSetField(t, TIFFTAG_PHOTOSHOP, static_cast<uint32_t>(resources.size()), resources.data());
  }

  std::vector<uint8_t> row(size_t{width} * samplesPerPixel * sampleBytes);
  for (uint32_t y = 0; y < height; ++y) {
    uint8_t* out = row.data();
    for (uint32_t x = 0; x < width; ++x) {
      for (uint16_t s = 0; s < samplesPerPixel; ++s, out += sampleBytes) {
        const double v = image.planes[s * planeSize + size_t{y} * width + x];
        if (depth == SampleDepth::k8) {
          *out = static_cast<uint8_t>(QuantiseSample(v, 255));
        } else if (depth == SampleDepth::k16) {
          const auto q = static_cast<uint16_t>(QuantiseSample(v, 65535));
          std::memcpy(out, &q, sizeof q);
        } else {
          // Beyond float's range the sample becomes an infinity of its sign, as IEEE rounding
          // would give; the cast itself would be undefined there.
          const float f = std::abs(v) > std::numeric_limits<float>::max()
                              ? std::copysign(std::numeric_limits<float>::infinity(), v)
                              : static_cast<float>(v);
          std::memcpy(out, &f, sizeof f);
        }
      }
    }
    if (TIFFWriteScanline(t, row.data(), y, 0) < 0) Fail(path, stream, "cannot encode TIFF");
  }
  if (!TIFFWriteDirectory(t)) Fail(path, stream, "cannot encode TIFF");
  tif.reset();
  return std::move(stream.data);
}

}  // namespace marlith
