// The GraphicsMagick module: every use of GraphicsMagick in the image layer, built into
// libmarlith-magick.so and reached through marlith_magick_module().
#include "image/magick_module.h"

#include <Magick++.h>

#include <exception>
#include <mutex>
#include <new>
#include <string>

#include "image/image_metadata.h"
#include "image/size_check.h"
#include "image/tiff_file.h"

namespace marlith {
namespace {

// The readers and writers below move samples as 16-bit quanta.
static_assert(MaxRGB == 65535, "GraphicsMagick must be built with 16-bit quanta (Q16)");

// GraphicsMagick's exception in the tool's words: "Magick: Insufficient image data in file ()
// reported by coders/jpeg.c:1692 (ReadJPEGImage)" becomes "Insufficient image data in file"; the
// source file and function are GraphicsMagick's own business. Running out of memory (either as
// std::bad_alloc or as GraphicsMagick's "Memory allocation failed") is "not enough memory".
std::string Reason(const std::exception& e) {
  std::string what = e.what();
  if (dynamic_cast<const std::bad_alloc*>(&e) ||
      what.find("Memory allocation failed") != std::string::npos)
    return "not enough memory";
  if (what.starts_with("Magick: ")) what.erase(0, 8);
  if (const size_t at = what.find(" reported by "); at != std::string::npos) what.erase(at);
  if (what.ends_with(" ()")) what.erase(what.size() - 3);
  if (what == "Read Exception" || what.empty()) return "the file cannot be decoded";
  return what;
}

// Decodes blob into image as format (a GraphicsMagick format name), or by its content when
// format is null. Reads the header first and refuses images outside 1 to kMaxImagePixels pixels
// before any pixel memory is taken. A decoder warning is tolerated unless it reports a truncated
// or corrupt stream, whose pixels would be partly invented. Returns false with the reason in
// error ("<path>: <reason>"); path only names the file in that message.
bool DecodeImageBlob(const Magick::Blob& blob, const char* format, const std::string& path,
                     Magick::Image& image, std::string& error) {
  try {
    Magick::Image header;
    if (format) header.magick(format);
    header.ping(blob);
    const int64_t columns = header.columns(), rows = header.rows();
    if (!SizeWithin(kMaxImagePixels, {columns, rows})) {
      error = path + ": an image of " + std::to_string(columns) + " x " + std::to_string(rows) +
              " pixels is outside the accepted 1 to " + std::to_string(kMaxImagePixels) + " pixels";
      return false;
    }
    if (format) image.magick(format);
    image.read(blob);
  } catch (const Magick::Warning& w) {
    // A warning from a decoder that delivered an image (an unknown chunk, say) is not a
    // failure, but a truncated or corrupt stream is: its pixels would be partly invented.
    const std::string what = Reason(w);
    if (image.columns() == 0 || what.find("orrupt") != std::string::npos ||
        what.find("remature") != std::string::npos || what.find("runcat") != std::string::npos ||
        what.find("nexpected end") != std::string::npos) {
      error = path + ": " + what;
      return false;
    }
  } catch (const std::exception& e) {
    error = path + ": " + Reason(e);
    if (error.find("resource limit") != std::string::npos) {
      error += " (images of at most " + std::to_string(kMaxImagePixels) + " pixels are accepted)";
    }
    return false;
  }
  return image.columns() > 0 && image.rows() > 0;
}

uint8_t ToByte(Magick::Quantum q) { return static_cast<uint8_t>(ScaleQuantumToChar(q)); }

bool DecodeContainer(std::string_view bytes, const char* format, const std::string& path,
                     ContainerPixels& out, std::string& error) {
  try {
    const Magick::Blob blob(bytes.data(), bytes.size());
    Magick::Image image;
    if (!DecodeImageBlob(blob, format, path, image, error)) return false;
    // The JPEG decoder hands CMYK (Adobe's inverted form already undone) through as is, which
    // would read as false colours: convert to RGB, (1 - C)(1 - K) and so on. Only JPEG: every
    // other image keeps the pixels it always gave.
    if (image.colorSpace() == Magick::CMYKColorspace && image.magick() == "JPEG") {
      image.colorSpace(Magick::RGBColorspace);
    }
    out.width = static_cast<int32_t>(image.columns());
    out.height = static_cast<int32_t>(image.rows());
    out.hasAlpha = image.matte();
    out.pseudoClass = image.classType() == Magick::PseudoClass;
    out.pixels.resize(static_cast<size_t>(out.width) * out.height);
    const Magick::PixelPacket* p = image.getConstPixels(0, 0, out.width, out.height);
    for (size_t i = 0; i < out.pixels.size(); ++i) {
      out.pixels[i] = PixelColor{ToByte(p[i].blue), ToByte(p[i].green), ToByte(p[i].red),
                                 static_cast<uint8_t>(255 - ToByte(p[i].opacity))};
    }
    return true;
  } catch (const std::exception& e) {
    error = path + ": " + Reason(e);
    return false;
  }
}

bool EncodeContainer(const uint8_t* rgb, int32_t width, int32_t height, const char* format,
                     std::string& bytes, std::string& error) {
  try {
    Magick::Image image(width, height, "RGB", Magick::CharPixel, rgb);
    // Always 24-bit output: without this the encoders pick grey or palette forms for images
    // that happen to have few colours.
    image.type(Magick::TrueColorType);
    image.depth(8);
    if (std::string_view(format) == "JPEG") image.quality(95);  // visually lossless for photographs
    image.magick(format);
    Magick::Blob blob;
    image.write(&blob);
    bytes.assign(static_cast<const char*>(blob.data()), blob.length());
    return true;
  } catch (const std::exception& e) {
    error = Reason(e);
    return false;
  }
}

std::string Profile(const Magick::Image& image, const char* name) {
  size_t length = 0;
  const unsigned char* data = MagickLib::GetImageProfile(image.constImage(), name, &length);
  return data ? std::string(reinterpret_cast<const char*>(data), length) : std::string();
}

void SetProfile(Magick::Image& image, const char* name, const std::string& data) {
  if (data.empty()) return;
  MagickLib::SetImageProfile(image.image(), name,
                             reinterpret_cast<const unsigned char*>(data.data()), data.size());
}

bool CanWriteWebp() {
  MagickLib::ExceptionInfo exception;
  MagickLib::GetExceptionInfo(&exception);
  const MagickLib::MagickInfo* info = MagickLib::GetMagickInfo("WEBP", &exception);
  MagickLib::DestroyExceptionInfo(&exception);
  return info && info->encoder;
}

bool Read(std::string_view bytes, const std::string& path, LoadedImage& out, std::string& error) {
  try {
    const Magick::Blob blob(bytes.data(), bytes.size());
    Magick::Image image;
    if (!DecodeImageBlob(blob, nullptr, path, image, error)) {
      if (error.empty()) error = path + ": no image could be decoded";
      return false;
    }
    out = LoadedImage{};
    out.iccProfile = Profile(image, "ICC");
    out.exif = ExifFromApp1(Profile(image, "EXIF"));
    out.xmp = Profile(image, "XMP");
    // JPEG's APP13 comes as Photoshop's resource list; the IPTC records are one resource.
    out.iptc = Profile(image, "IPTC");
    if (std::string_view(out.iptc).starts_with("8BIM"))
      out.iptc = PhotoshopResource(out.iptc, kPhotoshopIptcResource);
    if (image.colorSpace() == Magick::CMYKColorspace) {
      image.colorSpace(Magick::RGBColorspace);
      out.iccProfile.clear();  // it described the CMYK samples, not the RGB ones
    }
    // Decoders mark grey files (and palettes of grey colours only) as grey. The PPM decoder
    // marks a colour file whose pixels happen to be grey too, but a PPM file is declared colour.
    const bool grey = image.constImage()->is_grayscale && image.magick() != "PPM";
    out.width = static_cast<int>(image.columns());
    out.height = static_cast<int>(image.rows());
    out.colourChannels = grey ? 1 : 3;
    out.hasAlpha = image.matte();
    out.depth = image.depth() > 8 ? SampleDepth::k16 : SampleDepth::k8;
    const size_t planeSize = size_t(out.width) * out.height;
    out.planes.resize(planeSize * (out.colourChannels + out.hasAlpha));
    const Magick::PixelPacket* p = image.getConstPixels(0, 0, out.width, out.height);
    if (!p) {
      error = path + ": cannot get the decoded pixels";
      return false;
    }
    constexpr double kScale = 1.0 / MaxRGB;
    double* colour = out.planes.data();
    double* alpha = colour + out.colourChannels * planeSize;
    for (size_t i = 0; i < planeSize; ++i) {
      colour[i] = p[i].red * kScale;
      if (!grey) {
        colour[planeSize + i] = p[i].green * kScale;
        colour[2 * planeSize + i] = p[i].blue * kScale;
      }
      if (out.hasAlpha) alpha[i] = (MaxRGB - p[i].opacity) * kScale;
    }
    return true;
  } catch (const std::exception& e) {
    error = path + ": " + Reason(e);
    return false;
  }
}

bool Encode(const LoadedImage& image, ImageFileType type, SampleDepth depth, int quality,
            std::string& bytes, std::string& error) {
  try {
    const bool alpha =
        image.hasAlpha && (type == ImageFileType::kPng || type == ImageFileType::kWebp ||
                           type == ImageFileType::kBmp);
    const bool grey = image.colourChannels == 1;
    const int maxValue = depth == SampleDepth::k16 ? 65535 : 255;
    const int toQuantum = MaxRGB / maxValue;  // 257 for 8-bit samples, exactly
    const size_t planeSize = size_t(image.width) * image.height;
    auto quantum = [&](int plane, size_t i) {
      return static_cast<Magick::Quantum>(
          QuantiseSample(image.planes[plane * planeSize + i], maxValue) * toQuantum);
    };

    Magick::Image out(Magick::Geometry(image.width, image.height), Magick::Color(0, 0, 0, 0));
    out.modifyImage();
    out.classType(Magick::DirectClass);
    out.matte(alpha);  // before the pixels: switching it on later resets them to opaque
    Magick::PixelPacket* p = out.getPixels(0, 0, image.width, image.height);
    for (size_t i = 0; i < planeSize; ++i) {
      p[i].red = quantum(0, i);
      p[i].green = grey ? p[i].red : quantum(1, i);
      p[i].blue = grey ? p[i].red : quantum(2, i);
      p[i].opacity = alpha ? MaxRGB - quantum(image.colourChannels, i) : 0;
    }
    out.syncPixels();
    // Setting the type explicitly keeps the encoders from choosing palette or bilevel forms; a
    // PPM file is colour by definition.
    const bool writeGrey = grey && type != ImageFileType::kPpm;
    out.type(writeGrey ? (alpha ? Magick::GrayscaleMatteType : Magick::GrayscaleType)
                       : (alpha ? Magick::TrueColorMatteType : Magick::TrueColorType));
    out.depth(depth == SampleDepth::k16 ? 16 : 8);
    // PNG's chunks are added below: GraphicsMagick would write the profiles as text chunks.
    if (type != ImageFileType::kPng) SetProfile(out, "ICC", image.iccProfile);
    const char* format = "PNG";
    switch (type) {
      case ImageFileType::kJpeg:
        format = "JPEG";
        out.quality(quality);
        SetProfile(out, "EXIF", image.exif.empty() ? "" : ExifToApp1(image.exif));
        SetProfile(out, "XMP", image.xmp);
        SetProfile(
            out, "IPTC",
            image.iptc.empty() ? "" : PhotoshopResourceBlock(kPhotoshopIptcResource, image.iptc));
        break;
      case ImageFileType::kWebp:
        format = "WEBP";
        out.quality(quality);
        SetProfile(out, "EXIF", image.exif);
        SetProfile(out, "XMP", image.xmp);
        break;
      case ImageFileType::kBmp:
        format = "BMP";
        break;
      case ImageFileType::kPgm:
      case ImageFileType::kPpm:
      case ImageFileType::kPnm:
        format = writeGrey ? "PGM" : "PPM";
        break;
      default:
        // PNG: zlib level 4 with adaptive row filters, as the frozen command's saver chose for
        // speed at a 2.6 % larger file.
        out.quality(45);
        break;
    }
    out.magick(format);
    // Encoder warnings (a profile libpng finds odd, say) do not fail a write that produced a
    // file.
    out.quiet(true);
    Magick::Blob blob;
    out.write(&blob);
    bytes.assign(static_cast<const char*>(blob.data()), blob.length());
    // The standard chunks: iCCP (before PLTE and IDAT), eXIf, and XMP's iTXt.
    if (type == ImageFileType::kPng) {
      if (!image.iccProfile.empty())
        bytes = InsertPngChunkAfterHeader(bytes, "iCCP", IccpChunk(image.iccProfile));
      if (!image.exif.empty()) bytes = InsertPngChunk(bytes, "eXIf", image.exif);
      if (!image.xmp.empty()) bytes = InsertPngChunk(bytes, "iTXt", XmpItxtChunk(image.xmp));
    }
    return true;
  } catch (const std::exception& e) {
    error = Reason(e);
    return false;
  }
}

}  // namespace
}  // namespace marlith

// The module's entry, called once when it is opened: GraphicsMagick's start-up, with its pixel
// resource limit at kMaxImagePixels, then the functions.
extern "C" __attribute__((visibility("default"))) const marlith::MagickModule*
marlith_magick_module() {
  static std::once_flag once;
  std::call_once(once, [] {
    Magick::InitializeMagick(nullptr);
    // A second guard behind the header check in DecodeImageBlob.
    MagickLib::SetMagickResourceLimit(MagickLib::PixelsResource, marlith::kMaxImagePixels);
    MagickLib::SetMagickResourceLimit(MagickLib::WidthResource, 1 << 20);
    MagickLib::SetMagickResourceLimit(MagickLib::HeightResource, 1 << 20);
    // GraphicsMagick's OpenMP loops run on the calling thread only: libgomp ends the whole
    // process when it cannot start a thread ("libgomp: Thread creation failed", naming no file),
    // where one thread reads and writes as well and the engine's pool does the parallel work.
    MagickLib::SetMagickResourceLimit(MagickLib::ThreadsResource, 1);
  });
  static const marlith::MagickModule module{marlith::DecodeContainer, marlith::EncodeContainer,
                                            marlith::Read, marlith::Encode, marlith::CanWriteWebp};
  return &module;
}
