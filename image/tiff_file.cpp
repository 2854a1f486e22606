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
#include "image/size_check.h"
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

// How a TIFF's samples are taken, decided from its tags before any pixel is read: the one table
// of sample types and colour spaces (see TiffLayoutOf).
struct TiffLayout {
  enum Colour { kGrey, kWhiteIsZero, kRgb, kPalette, kCmyk, kYcbcrThroughRgba };
  Colour colour = kGrey;
  int colours = 1;        // colour planes of the result: 1 or 3
  int storedColours = 1;  // colour samples per pixel in the file (4 for CMYK)
  bool alpha = false, associated = false;
  uint16_t format = SAMPLEFORMAT_UINT, bits = 8, samplesPerPixel = 1;
  SampleDepth depth = SampleDepth::k8;
};

// Reads the tags and decides; a string saying why when the file is refused. Integer samples of
// 1 to 8 bits give k8 and 16 bits k16, on the [0, 1] scale. 32-bit unsigned and every signed
// integer are read as floating point (kFloat), divided by the type's largest value: unsigned
// 32-bit to [0, 1] as the narrower ones; signed ones to [-1, 1] with 0 staying 0, as
// scikit-image's img_as_float does, since signed samples are measurements whose zero means
// nothing there and whose sign a float result can keep. Floats of 16 (half), 32 and 64 bits are
// read as they are (kFloat). CIE L*a*b* and the other colour spaces are refused rather than
// taken for RGB.
std::string TiffLayoutOf(TIFF* tif, TiffLayout& layout) {
  uint16_t photometric = 0, planar = PLANARCONFIG_CONTIG, extraCount = 0, inkSet = INKSET_CMYK;
  uint16_t* extraTypes = nullptr;
  uint16_t compression = COMPRESSION_NONE;
  TIFFGetFieldDefaulted(tif, TIFFTAG_SAMPLESPERPIXEL, &layout.samplesPerPixel);
  TIFFGetFieldDefaulted(tif, TIFFTAG_SAMPLEFORMAT, &layout.format);
  TIFFGetFieldDefaulted(tif, TIFFTAG_BITSPERSAMPLE, &layout.bits);
  TIFFGetFieldDefaulted(tif, TIFFTAG_PLANARCONFIG, &planar);
  TIFFGetFieldDefaulted(tif, TIFFTAG_COMPRESSION, &compression);
  TIFFGetFieldDefaulted(tif, TIFFTAG_INKSET, &inkSet);
  TIFFGetField(tif, TIFFTAG_EXTRASAMPLES, &extraCount, &extraTypes);
  if (TIFFGetField(tif, TIFFTAG_PHOTOMETRIC, &photometric) != 1) {
    return "the TIFF file does not say how its samples encode colour (no photometric tag)";
  }
  const uint16_t format = layout.format == SAMPLEFORMAT_VOID ? SAMPLEFORMAT_UINT : layout.format;
  layout.format = format;
  const uint16_t bits = layout.bits;
  const bool unsignedInt = format == SAMPLEFORMAT_UINT;
  const bool knownType =
      (unsignedInt &&
       (bits == 1 || bits == 2 || bits == 4 || bits == 8 || bits == 16 || bits == 32)) ||
      (format == SAMPLEFORMAT_INT && (bits == 8 || bits == 16 || bits == 32)) ||
      (format == SAMPLEFORMAT_IEEEFP && (bits == 16 || bits == 32 || bits == 64));
  if (!knownType) {
    const char* kind = format == SAMPLEFORMAT_INT      ? "signed integer"
                       : format == SAMPLEFORMAT_IEEEFP ? "floating-point"
                       : unsignedInt                   ? "unsigned integer"
                                                       : "complex";
    return std::to_string(bits) + "-bit " + kind +
           " samples are not read (unsigned integers of 1, 2, 4, 8, 16 or 32 bits, signed ones "
           "of 8, 16 or 32, floats of 16, 32 or 64)";
  }
  layout.depth = unsignedInt && bits <= 8    ? SampleDepth::k8
                 : unsignedInt && bits == 16 ? SampleDepth::k16
                                             : SampleDepth::kFloat;
  switch (photometric) {
    case PHOTOMETRIC_MINISBLACK:
      layout.colour = TiffLayout::kGrey;
      break;
    case PHOTOMETRIC_MINISWHITE:
      if (!unsignedInt) return "white-is-zero samples are read as unsigned integers only";
      layout.colour = TiffLayout::kWhiteIsZero;
      break;
    case PHOTOMETRIC_RGB:
      layout.colour = TiffLayout::kRgb;
      layout.colours = layout.storedColours = 3;
      break;
    case PHOTOMETRIC_PALETTE:
      if (!unsignedInt || bits > 16) return "palette indices must be unsigned integers";
      layout.colour = TiffLayout::kPalette;
      layout.colours = 3;  // 1 when every palette entry is grey (see ReadTiff)
      break;
    case PHOTOMETRIC_SEPARATED:
      if (inkSet != INKSET_CMYK || !unsignedInt || bits < 8) {
        return "separated (ink) samples are read as 8- or 16-bit CMYK only";
      }
      layout.colour = TiffLayout::kCmyk;
      layout.colours = 3;
      layout.storedColours = 4;
      break;
    case PHOTOMETRIC_YCBCR:
      if (compression == COMPRESSION_JPEG || compression == COMPRESSION_OJPEG) {
        // libjpeg turns it into RGB as it decodes.
        TIFFSetField(tif, TIFFTAG_JPEGCOLORMODE, JPEGCOLORMODE_RGB);
        layout.colour = TiffLayout::kRgb;
      } else {
        if (bits != 8 || !unsignedInt) return "YCbCr samples are read as 8-bit only";
        layout.colour = TiffLayout::kYcbcrThroughRgba;
      }
      layout.colours = layout.storedColours = 3;
      break;
    case PHOTOMETRIC_CIELAB:
    case PHOTOMETRIC_ICCLAB:
    case PHOTOMETRIC_ITULAB:
      return "CIE L*a*b* colour is not read (photometric interpretation " +
             std::to_string(photometric) + "); convert the file to RGB first";
    default:
      return "photometric interpretation " + std::to_string(photometric) +
             " is not read (grey, RGB, palette, CMYK and YCbCr are)";
  }
  if (layout.samplesPerPixel < layout.storedColours) {
    return std::to_string(layout.samplesPerPixel) + " samples per pixel are too few for its colour";
  }
  const int extras = layout.samplesPerPixel - layout.storedColours;
  if (extras > 0) {
    // Only a sample the file marks as alpha is alpha: an unmarked second sample of a grey file
    // may be anything (a second channel, a mask).
    const bool marked =
        extraCount == extras && extraTypes &&
        (extraTypes[0] == EXTRASAMPLE_ASSOCALPHA || extraTypes[0] == EXTRASAMPLE_UNASSALPHA);
    if (!marked || extras > 1 || layout.colour == TiffLayout::kPalette ||
        layout.colour == TiffLayout::kYcbcrThroughRgba) {
      return std::to_string(extras) + " extra sample" + (extras > 1 ? "s" : "") +
             " per pixel beside the colour, not marked as alpha (ExtraSamples); grey or colour "
             "with at most one alpha channel is read";
    }
    layout.alpha = true;
    layout.associated = extraTypes[0] == EXTRASAMPLE_ASSOCALPHA;
  }
  if (planar == PLANARCONFIG_SEPARATE && layout.colour == TiffLayout::kYcbcrThroughRgba) {
    return "YCbCr samples in separate planes are not read";
  }
  return "";
}

// Half-precision (IEEE binary16) bits as a double.
double HalfToDouble(uint16_t h) {
  const int exponent = h >> 10 & 0x1f, mantissa = h & 0x3ff;
  const double sign = h & 0x8000 ? -1.0 : 1.0;
  if (exponent == 0) return sign * std::ldexp(mantissa, -24);
  if (exponent == 31) {
    return mantissa ? std::numeric_limits<double>::quiet_NaN()
                    : sign * std::numeric_limits<double>::infinity();
  }
  return sign * std::ldexp(1024 + mantissa, exponent - 25);
}

// Sample number i of a row or tile of samples of the layout's type, converted as TiffLayoutOf
// says.
double SampleAt(const uint8_t* piece, uint64_t i, const TiffLayout& layout) {
  const uint16_t bits = layout.bits;
  if (bits < 8) {
    const uint64_t bit = i * bits;
    const int shift = 8 - bits - static_cast<int>(bit % 8);
    const unsigned v = piece[bit / 8] >> shift & ((1u << bits) - 1);
    return layout.colour == TiffLayout::kPalette ? v : v / double((1u << bits) - 1);
  }
  const uint8_t* p = piece + i * (bits / 8);
  auto load = [p](auto v) {
    std::memcpy(&v, p, sizeof v);
    return v;
  };
  const bool index = layout.colour == TiffLayout::kPalette;
  switch (layout.format) {
    case SAMPLEFORMAT_UINT:
      if (bits == 8) return index ? *p : *p / 255.0;
      if (bits == 16) return index ? load(uint16_t{}) : load(uint16_t{}) / 65535.0;
      return load(uint32_t{}) / 4294967295.0;
    case SAMPLEFORMAT_INT:
      if (bits == 8) return load(int8_t{}) / 127.0;
      if (bits == 16) return load(int16_t{}) / 32767.0;
      return load(int32_t{}) / 2147483647.0;
    default:
      if (bits == 16) return HalfToDouble(load(uint16_t{}));
      if (bits == 32) return load(float{});
      return load(double{});
  }
}

// Reads the samples as they are stored (colour, then alpha; CMYK's four inks) into planes of
// width x height each, strips or tiles, samples interleaved or in separate planes. Palette
// images give their indices.
void ReadStoredSamples(TIFF* tif, const MemoryStream& stream, const std::string& path,
                       uint32_t width, uint32_t height, const TiffLayout& layout,
                       std::vector<double>& planes) {
  const int planeCount = layout.storedColours + (layout.alpha ? 1 : 0);
  const size_t planeSize = size_t{width} * height;
  planes.assign(planeSize * planeCount, 0.0);
  uint16_t planar = PLANARCONFIG_CONTIG;
  TIFFGetFieldDefaulted(tif, TIFFTAG_PLANARCONFIG, &planar);
  const bool separate = planar == PLANARCONFIG_SEPARATE && layout.samplesPerPixel > 1;
  // Samples per pixel in one piece read, and how many pieces (planes) there are to read.
  const uint64_t perPixel = separate ? 1 : layout.samplesPerPixel;
  const int passes = separate ? planeCount : 1;
  const double bitsPerPixel = double{1.0} * perPixel * layout.bits;
  // Copies a piece (a row or a tile) whose top left pixel is (x0, y0) into the planes. Rows of
  // samples narrower than a byte start on a byte boundary.
  auto store = [&](const uint8_t* piece, int firstPlane, uint32_t x0, uint32_t y0,
                   uint32_t pieceWidth, uint32_t pieceHeight) {
    const int planesHere = std::min<int>(static_cast<int>(perPixel), planeCount - firstPlane);
    const uint64_t rowBytes = (uint64_t{pieceWidth} * perPixel * layout.bits + 7) / 8;
    for (uint32_t y = 0; y < pieceHeight && y0 + y < height; ++y) {
      const uint8_t* row = piece + y * rowBytes;
      for (uint32_t x = 0; x < pieceWidth && x0 + x < width; ++x) {
        for (int s = 0; s < planesHere; ++s) {
          planes[(firstPlane + s) * planeSize + size_t{y0 + y} * width + x0 + x] =
              SampleAt(row, uint64_t{x} * perPixel + s, layout);
        }
      }
    }
  };
  if (TIFFIsTiled(tif)) {
    uint32_t tileWidth = 0, tileHeight = 0;
    TIFFGetField(tif, TIFFTAG_TILEWIDTH, &tileWidth);
    TIFFGetField(tif, TIFFTAG_TILELENGTH, &tileHeight);
    if (tileWidth == 0 || tileHeight == 0) Fail(path, stream, "the TIFF file's tiles have no size");
    std::vector<uint8_t> tile =
        PieceBuffer(TIFFTileSize(tif), std::ceil(bitsPerPixel * tileWidth / 8) * tileHeight, path);
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
        PieceBuffer(TIFFScanlineSize(tif), std::ceil(bitsPerPixel * width / 8), path);
    for (int pass = 0; pass < passes; ++pass)
      for (uint32_t y = 0; y < height; ++y) {
        if (TIFFReadScanline(tif, row.data(), y, static_cast<uint16_t>(pass)) < 0) {
          Fail(path, stream, "the TIFF file's pixel data is unreadable");
        }
        store(row.data(), pass, 0, y, width, 1);
      }
  }
}

// The stored samples turned into LoadedImage's colour planes (grey or RGB) and alpha.
void ConvertColour(TIFF* tif, const std::string& path, const TiffLayout& layout,
                   std::vector<double>& planes, LoadedImage& image) {
  const size_t planeSize = size_t(image.width) * image.height;
  switch (layout.colour) {
    case TiffLayout::kWhiteIsZero:
      for (size_t i = 0; i < planeSize; ++i) planes[i] = 1.0 - planes[i];
      break;
    case TiffLayout::kCmyk: {
      // (1 - C)(1 - K) and so on; the alpha plane moves up from behind K.
      for (size_t i = 0; i < planeSize; ++i) {
        const double white = 1.0 - planes[3 * planeSize + i];
        for (int c = 0; c < 3; ++c)
          planes[c * planeSize + i] = (1.0 - planes[c * planeSize + i]) * white;
      }
      planes.erase(planes.begin() + 3 * planeSize, planes.begin() + 4 * planeSize);
      break;
    }
    case TiffLayout::kPalette: {
      uint16_t *red = nullptr, *green = nullptr, *blue = nullptr;
      if (TIFFGetField(tif, TIFFTAG_COLORMAP, &red, &green, &blue) != 1 || !red) {
        throw Error(path + ": the palette TIFF file has no palette");
      }
      const size_t entries = size_t{1} << layout.bits;
      // Some writers store 8-bit palette entries: every entry below 256 means that.
      bool eightBit = true, grey = true;
      for (size_t e = 0; e < entries; ++e) {
        eightBit = eightBit && red[e] < 256 && green[e] < 256 && blue[e] < 256;
        grey = grey && red[e] == green[e] && green[e] == blue[e];
      }
      const double scale = eightBit ? 1.0 / 255 : 1.0 / 65535;
      bool deep = false;
      for (size_t e = 0; e < entries && !eightBit; ++e)
        deep = deep || red[e] % 257 || green[e] % 257 || blue[e] % 257;
      image.colourChannels = grey ? 1 : 3;
      image.depth = deep ? SampleDepth::k16 : SampleDepth::k8;
      std::vector<double> colour(planeSize * image.colourChannels);
      for (size_t i = 0; i < planeSize; ++i) {
        const size_t e = static_cast<size_t>(planes[i]);
        colour[i] = red[e] * scale;
        if (!grey) {
          colour[planeSize + i] = green[e] * scale;
          colour[2 * planeSize + i] = blue[e] * scale;
        }
      }
      planes = std::move(colour);
      break;
    }
    default:
      break;
  }
}

}  // namespace

bool LooksLikeTiff(std::string_view bytes) {
  return bytes.starts_with(std::string_view("II*\0", 4)) ||
         bytes.starts_with(std::string_view("MM\0*", 4)) ||
         bytes.starts_with(std::string_view("II+\0", 4)) ||
         bytes.starts_with(std::string_view("MM\0+", 4));
}

std::string TiffRefusal(std::string_view bytes, const std::string& path) {
  MemoryStream stream;
  stream.bytes = bytes;
  const TiffHandle tif = Open(stream, "rm", path);
  if (!tif) return "";  // not for this check to say: the decoder reports it
  uint16_t photometric = 0, format = SAMPLEFORMAT_UINT;
  TIFFGetFieldDefaulted(tif.get(), TIFFTAG_SAMPLEFORMAT, &format);
  TIFFGetField(tif.get(), TIFFTAG_PHOTOMETRIC, &photometric);
  // GraphicsMagick reads L*a*b* as false colours and signed samples as wrapped unsigned ones;
  // what it reads right is left to it, so that the command's results stay as they were.
  const bool lab = photometric == PHOTOMETRIC_CIELAB || photometric == PHOTOMETRIC_ICCLAB ||
                   photometric == PHOTOMETRIC_ITULAB;
  if (!lab && format != SAMPLEFORMAT_INT) return "";
  TiffLayout layout;
  const std::string why = TiffLayoutOf(tif.get(), layout);
  return path + ": " + (lab ? why : "signed integer samples are not read by this command");
}

TiffPages ReadTiffPages(std::string_view bytes, const std::string& path) {
  MemoryStream stream;
  stream.bytes = bytes;
  const TiffHandle tif = Open(stream, "rm", path);
  if (!tif) Fail(path, stream, "not a readable TIFF file");
  TiffPages pages;
  pages.count = TIFFNumberOfDirectories(tif.get());
  char* description = nullptr;
  if (TIFFGetField(tif.get(), TIFFTAG_IMAGEDESCRIPTION, &description) == 1 && description)
    pages.description = description;
  float x = 0.0f, y = 0.0f;
  uint16_t unit = RESUNIT_NONE;
  if (TIFFGetField(tif.get(), TIFFTAG_XRESOLUTION, &x) == 1) pages.xResolution = x;
  if (TIFFGetField(tif.get(), TIFFTAG_YRESOLUTION, &y) == 1) pages.yResolution = y;
  if (TIFFGetField(tif.get(), TIFFTAG_RESOLUTIONUNIT, &unit) == 1) pages.resolutionUnit = unit;
  return pages;
}

TiffContents ReadTiff(std::string_view bytes, const std::string& path, int page) {
  MemoryStream stream;
  stream.bytes = bytes;
  // "m": no memory mapping, the procedures above serve every read.
  const TiffHandle tif = Open(stream, "rm", path);
  if (!tif) Fail(path, stream, "not a readable TIFF file");
  if (page > 0 && !TIFFSetDirectory(tif.get(), static_cast<tdir_t>(page)))
    Fail(path, stream, ("page " + std::to_string(page + 1) + " is unreadable").c_str());
  uint32_t width = 0, height = 0;
  TIFFGetField(tif.get(), TIFFTAG_IMAGEWIDTH, &width);
  TIFFGetField(tif.get(), TIFFTAG_IMAGELENGTH, &height);
  if (!SizeWithin(kMaxImagePixels, {width, height})) {
    throw Error(path + ": an image of " + std::to_string(width) + " x " + std::to_string(height) +
                " pixels is outside the accepted 1 to " + std::to_string(kMaxImagePixels) +
                " pixels");
  }
  TiffContents out;
  LoadedImage& image = out.image;
  uint32_t count = 0;
  void* data = nullptr;
  auto field = [&](uint32_t tag) {
    return TIFFGetField(tif.get(), tag, &count, &data) == 1 && data
               ? std::string(static_cast<const char*>(data), count)
               : std::string();
  };
  image.iccProfile = field(TIFFTAG_ICCPROFILE);
  image.xmp = field(TIFFTAG_XMLPACKET);
  image.iptc = field(TIFFTAG_RICHTIFFIPTC);
  const std::string resources = field(TIFFTAG_PHOTOSHOP);
  image.exif = ExifFromPhotoshopResources(resources);
  if (image.iptc.empty()) image.iptc = PhotoshopResource(resources, kPhotoshopIptcResource);
  // The file's own camera tags and EXIF directory, when no EXIF block says more.
  if (image.exif.empty()) image.exif = ExifBlock(ReadExifContents(bytes));
  uint16_t orientation = ORIENTATION_TOPLEFT;
  TIFFGetFieldDefaulted(tif.get(), TIFFTAG_ORIENTATION, &orientation);
  out.orientation = orientation >= 1 && orientation <= 8 ? orientation : 1;

  TiffLayout layout;
  const std::string refusal = TiffLayoutOf(tif.get(), layout);
  if (!refusal.empty()) throw Error(path + ": " + refusal);
  image.width = static_cast<int>(width);
  image.height = static_cast<int>(height);
  image.colourChannels = layout.colours;
  image.hasAlpha = layout.alpha;
  image.depth = layout.depth;
  const size_t planeSize = size_t{width} * height;
  if (layout.colour == TiffLayout::kYcbcrThroughRgba) {
    // libtiff's RGBA reader undoes the subsampling; asked for the file's own orientation it
    // leaves the rows as stored, which ReadImageFile turns upright.
    std::vector<uint32_t> raster(planeSize);
    if (!TIFFReadRGBAImageOriented(tif.get(), width, height, raster.data(), out.orientation, 0)) {
      Fail(path, stream, "the TIFF file's pixel data is unreadable");
    }
    image.planes.resize(3 * planeSize);
    for (size_t i = 0; i < planeSize; ++i) {
      image.planes[i] = TIFFGetR(raster[i]) / 255.0;
      image.planes[planeSize + i] = TIFFGetG(raster[i]) / 255.0;
      image.planes[2 * planeSize + i] = TIFFGetB(raster[i]) / 255.0;
    }
    return out;
  }
  ReadStoredSamples(tif.get(), stream, path, width, height, layout, image.planes);
  ConvertColour(tif.get(), path, layout, image.planes, image);
  if (layout.colour == TiffLayout::kCmyk) image.iccProfile.clear();  // it described the inks
  if (layout.associated) {
    // Stored premultiplied by alpha; LoadedImage holds straight colour. Where alpha is 0 there
    // is no colour to recover and the stored value (0) stays.
    const double* alpha = image.planes.data() + image.colourChannels * planeSize;
    for (size_t i = 0; i < planeSize; ++i) {
      if (alpha[i] == 0.0) continue;
      for (int c = 0; c < image.colourChannels; ++c) image.planes[c * planeSize + i] /= alpha[i];
    }
  }
  return out;
}

std::string EncodeTiff(const LoadedImage& image, SampleDepth depth, const std::string& path) {
  return EncodeTiffPages({&image, 1}, depth, path, nullptr);
}

std::string EncodeTiffPages(std::span<const LoadedImage> pages, SampleDepth depth,
                            const std::string& path, const TiffPages* tags) {
  const uint16_t bits = depth == SampleDepth::k8 ? 8 : depth == SampleDepth::k16 ? 16 : 32;
  const size_t sampleBytes = bits / 8;
  double bytes = 0.0;
  for (const LoadedImage& page : pages)
    bytes += double(page.width) * page.height * (page.colourChannels + page.hasAlpha) *
             static_cast<double>(sampleBytes);
  // Classic TIFF addresses 4 GiB; larger results (possible at the pixel limit) need BigTIFF.
  const bool big = bytes > double(uint64_t{3} << 30);
  MemoryStream stream;
  stream.writing = true;
  TiffHandle tif = Open(stream, big ? "w8" : "w", path);
  if (!tif) Fail(path, stream, "cannot start the TIFF file");
  TIFF* t = tif.get();
  // The first page carries the file's metadata; an EXIF directory only a one-page file.
  bool exifDirectory = false;
  ExifContents exif;
  for (size_t index = 0; index < pages.size(); ++index) {
    const LoadedImage& image = pages[index];
    const bool first = index == 0;
    const uint32_t width = static_cast<uint32_t>(image.width);
    const uint32_t height = static_cast<uint32_t>(image.height);
    const uint16_t samplesPerPixel = static_cast<uint16_t>(image.colourChannels + image.hasAlpha);
    const size_t planeSize = size_t{width} * height;
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
    if (tags) {
      if (pages.size() > 1) {
        TIFFSetField(t, TIFFTAG_SUBFILETYPE, uint32_t{FILETYPE_PAGE});
        TIFFSetField(t, TIFFTAG_PAGENUMBER, static_cast<uint16_t>(index),
                     static_cast<uint16_t>(pages.size()));
      }
      if (tags->xResolution > 0.0 && tags->yResolution > 0.0) {
        TIFFSetField(t, TIFFTAG_XRESOLUTION, static_cast<float>(tags->xResolution));
        TIFFSetField(t, TIFFTAG_YRESOLUTION, static_cast<float>(tags->yResolution));
        TIFFSetField(t, TIFFTAG_RESOLUTIONUNIT, tags->resolutionUnit);
      }
      if (first && !tags->description.empty())
        TIFFSetField(t, TIFFTAG_IMAGEDESCRIPTION, tags->description.c_str());
    }
    if (first) {
      if (!image.iccProfile.empty()) {
        TIFFSetField(t, TIFFTAG_ICCPROFILE, static_cast<uint32_t>(image.iccProfile.size()),
                     image.iccProfile.data());
      }
      if (!image.xmp.empty()) {
        TIFFSetField(t, TIFFTAG_XMLPACKET, static_cast<uint32_t>(image.xmp.size()),
                     image.xmp.data());
      }
      if (!image.iptc.empty()) {
        TIFFSetField(t, TIFFTAG_RICHTIFFIPTC, static_cast<uint32_t>(image.iptc.size()),
                     image.iptc.data());
      }
      // The EXIF block whole where marlith and Photoshop look, and its parts where other programs
      // look: the camera's text tags in this directory, the EXIF directory (appended below).
      exif = ReadExifContents(image.exif);
      if (!image.exif.empty()) {
        const std::string resources = PhotoshopResourcesWithExif(image.exif);
        TIFFSetField(t, TIFFTAG_PHOTOSHOP, static_cast<uint32_t>(resources.size()),
                     resources.data());
      }
      for (const TiffEntry& e : exif.camera) {
        // A stack's description (ImageJ's or OME's) is the one its tags give.
        if (tags && e.tag == TIFFTAG_IMAGEDESCRIPTION) continue;
        if (e.type == TIFF_ASCII) TIFFSetField(t, e.tag, std::string(e.value.c_str()).c_str());
      }
      exifDirectory = !exif.exif.empty() && !big && pages.size() == 1;
      if (exifDirectory) TIFFSetField(t, TIFFTAG_EXIFIFD, uint64_t{0});  // its offset comes later
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
  }
  tif.reset();
  std::string& file = stream.data;
  if (exifDirectory) {
    file.resize((file.size() + 1) & ~size_t{1});
    const uint32_t at = static_cast<uint32_t>(file.size());
    file += TiffDirectory(exif.exif, at);
    PatchTiffLong(file, TIFFTAG_EXIFIFD, at);
  }
  return std::move(file);
}

}  // namespace marlith
