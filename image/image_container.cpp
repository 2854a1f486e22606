#include "image/image_container.h"

#include <Magick++.h>

#include <algorithm>
#include <stdexcept>
#include <string_view>

#include "image/file_bytes.h"
#include "image/magick_decoding.h"
#include "image/png_codec.h"

namespace marlith {
namespace {

static_assert(CxImage::kMaxPixels == kMaxImagePixels, "one pixel limit for every reader");

const char* MagickFormat(int32_t typeCode) {
  switch (typeCode) {
    case kImageTypeBmp:
      return "BMP";
    case kImageTypeJpeg:
      return "JPEG";
    case kImageTypePng:
      return "PNG";
    default:
      return nullptr;
  }
}

uint8_t ToByte(Magick::Quantum q) { return static_cast<uint8_t>(ScaleQuantumToChar(q)); }

}  // namespace

CxImage::CxImage() { InitialiseImageLibrary(); }
CxImage::~CxImage() = default;

bool CxImage::Load(const std::string& path, int32_t typeCode) {
  Destroy();
  std::string bytes;
  if (!ReadWholeFile(path, bytes, lastError_)) return false;
  // 8-bit RGB PNGs (photographs) go through libspng, everything else through GraphicsMagick.
  std::vector<uint8_t> rgb;
  if (DecodeRgb8Png(bytes, kMaxPixels, width_, height_, rgb)) {
    hasAlpha_ = false;
    bitsPerPixel_ = 24;
    pixels_.resize(static_cast<size_t>(width_) * height_);
    for (size_t i = 0; i < pixels_.size(); ++i) {
      pixels_[i] = PixelColor{rgb[3 * i + 2], rgb[3 * i + 1], rgb[3 * i], 255};
    }
    lastError_.clear();
    return true;
  }
  width_ = height_ = 0;
  const Magick::Blob blob(bytes.data(), bytes.size());
  bytes.clear();
  bytes.shrink_to_fit();
  // Decodes with a definite format (or by content when format is null).
  auto decode = [&](const char* format, Magick::Image& image, std::string& error) {
    return DecodeImageBlob(blob, format, path, image, error);
  };

  Magick::Image image;
  const bool definite = typeCode >= 1 && typeCode <= 10;
  std::string firstError;
  bool ok = false;
  if (definite) ok = MagickFormat(typeCode) && decode(MagickFormat(typeCode), image, firstError);
  if (!ok) {
    image = Magick::Image();
    std::string secondError;
    ok = decode(nullptr, image, secondError);
    if (!ok) lastError_ = definite && !firstError.empty() ? firstError : secondError;
  }
  if (!ok) return false;
  // The JPEG decoder hands CMYK (Adobe's inverted form already undone) through as is, which
  // would read as false colours: convert to RGB, (1 - C)(1 - K) and so on. Only JPEG: every
  // other image keeps the pixels it always gave.
  if (image.colorSpace() == Magick::CMYKColorspace && image.magick() == "JPEG") {
    image.colorSpace(Magick::RGBColorspace);
  }

  width_ = static_cast<int32_t>(image.columns());
  height_ = static_cast<int32_t>(image.rows());
  hasAlpha_ = image.matte();
  // Palette and grey images are decoded as PseudoClass: at most 8 bits per pixel as stored.
  bitsPerPixel_ = image.classType() == Magick::PseudoClass ? 8 : 24;
  pixels_.resize(static_cast<size_t>(width_) * height_);
  const Magick::PixelPacket* p = image.getConstPixels(0, 0, width_, height_);
  for (size_t i = 0; i < pixels_.size(); ++i) {
    pixels_[i] = PixelColor{ToByte(p[i].blue), ToByte(p[i].green), ToByte(p[i].red),
                            static_cast<uint8_t>(255 - ToByte(p[i].opacity))};
  }
  lastError_.clear();
  return true;
}

int32_t CxImage::GetColorType() const {
  if (hasAlpha_) return 4;
  return bitsPerPixel_ > 8 ? 2 : 1;
}

PixelColor CxImage::GetPixelColor(int32_t x, int32_t y, bool withAlpha) const {
  PixelColor c = pixels_[static_cast<size_t>(y) * width_ + x];
  // Without an alpha layer (or when alpha is not asked for) a pixel reads as opaque.
  if (!withAlpha || !hasAlpha_) c.alpha = 255;
  return c;
}

bool CxImage::Create(int32_t width, int32_t height, int32_t bitsPerPixel, int32_t /*typeCode*/) {
  Destroy();
  if (width < 1 || height < 1 || static_cast<int64_t>(width) * height > kMaxPixels) {
    lastError_ = "cannot create an image of " + std::to_string(width) + " x " +
                 std::to_string(height) + " pixels";
    return false;
  }
  width_ = width;
  height_ = height;
  bitsPerPixel_ = bitsPerPixel;
  pixels_.assign(static_cast<size_t>(width) * height, PixelColor{});
  return true;
}

void CxImage::Clear(uint8_t value) {
  std::fill(pixels_.begin(), pixels_.end(), PixelColor{value, value, value, value});
}

bool CxImage::Save(const std::string& path, int32_t typeCode) {
  const char* format = MagickFormat(typeCode);
  if (!format) {
    lastError_ = "cannot save " + path + ": unknown image type (names must end in png, jpg or bmp)";
    return false;
  }
  if (pixels_.empty()) {
    lastError_ = "cannot save " + path + ": the image is empty";
    return false;
  }
  Magick::Blob blob;
  std::string png;  // PNG files are encoded by png_codec
  try {
    std::vector<uint8_t> rgb(pixels_.size() * 3);
    for (size_t i = 0; i < pixels_.size(); ++i) {
      rgb[3 * i] = pixels_[i].red;
      rgb[3 * i + 1] = pixels_[i].green;
      rgb[3 * i + 2] = pixels_[i].blue;
    }
    if (typeCode == kImageTypePng) {
      std::string error;
      if (!EncodeRgb8Png(rgb.data(), width_, height_, png, error)) throw std::runtime_error(error);
    } else {
      Magick::Image image(width_, height_, "RGB", Magick::CharPixel, rgb.data());
      // Always 24-bit output: without this the encoders pick grey or palette forms for images
      // that happen to have few colours.
      image.type(Magick::TrueColorType);
      image.depth(8);
      if (typeCode == kImageTypeJpeg) image.quality(95);  // visually lossless for photographs
      image.magick(typeCode == kImageTypeBmp ? "BMP3" : format);
      image.write(&blob);
    }
  } catch (const std::exception& e) {
    lastError_ = "cannot encode " + path + ": " + e.what();
    return false;
  }

  // Write beside the target and rename over it only when complete: a failed or interrupted
  // save never leaves a truncated file where a good one was.
  const std::string_view bytes =
      png.empty() ? std::string_view(static_cast<const char*>(blob.data()), blob.length())
                  : std::string_view(png);
  return WriteFileAtomically(path, bytes, lastError_);
}

void CxImage::Destroy() {
  width_ = height_ = bitsPerPixel_ = 0;
  hasAlpha_ = false;
  pixels_.clear();
  pixels_.shrink_to_fit();
}

}  // namespace marlith
