#include "image/image_container.h"

#include <algorithm>
#include <stdexcept>
#include <string_view>

#include "image/file_bytes.h"
#include "image/magick_module.h"
#include "image/png_codec.h"
#include "image/size_check.h"
#include "image/tiff_file.h"

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

}  // namespace

CxImage::CxImage() = default;
CxImage::~CxImage() = default;

bool CxImage::Load(const std::string& path, int32_t typeCode) {
  Destroy();
  std::string bytes;
  if (!ReadWholeFile(path, bytes, lastError_)) return false;
  // TIFFs GraphicsMagick would decode wrongly (L*a*b* as RGB, signed samples wrapped) are
  // refused; every other file decodes as it always has.
  if (LooksLikeTiff(bytes) && !(lastError_ = TiffRefusal(bytes, path)).empty()) return false;
  // 8-bit RGB and grey PNGs (photographs, kernels) go through libspng, everything else through
  // GraphicsMagick, which decodes a grey PNG as PseudoClass too.
  std::vector<uint8_t> rgb;
  bool grey = false;
  if (DecodePng8(bytes, kMaxPixels, width_, height_, grey, rgb)) {
    hasAlpha_ = false;
    bitsPerPixel_ = grey ? 8 : 24;
    pixels_.resize(static_cast<size_t>(width_) * height_);
    for (size_t i = 0; i < pixels_.size(); ++i) {
      pixels_[i] = PixelColor{rgb[3 * i + 2], rgb[3 * i + 1], rgb[3 * i], 255};
    }
    lastError_.clear();
    return true;
  }
  width_ = height_ = 0;
  // Decodes with a definite format (or by content when format is null).
  ContainerPixels decoded;
  auto decode = [&](const char* format, std::string& error) {
    return Magick().decodeContainer(bytes, format, path, decoded, error);
  };
  const bool definite = typeCode >= 1 && typeCode <= 10;
  std::string firstError;
  bool ok = false;
  try {
    if (definite) ok = MagickFormat(typeCode) && decode(MagickFormat(typeCode), firstError);
    if (!ok) {
      std::string secondError;
      ok = decode(nullptr, secondError);
      if (!ok) lastError_ = definite && !firstError.empty() ? firstError : secondError;
    }
  } catch (const std::exception& e) {  // the module cannot be opened
    lastError_ = path + ": " + e.what();
    return false;
  }
  if (!ok) return false;
  width_ = decoded.width;
  height_ = decoded.height;
  hasAlpha_ = decoded.hasAlpha;
  // Palette and grey images are decoded as PseudoClass: at most 8 bits per pixel as stored.
  bitsPerPixel_ = decoded.pseudoClass ? 8 : 24;
  pixels_ = std::move(decoded.pixels);
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
  if (!SizeWithin(kMaxPixels, {width, height})) {
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
  std::string encoded;
  std::string error;
  try {
    std::vector<uint8_t> rgb(pixels_.size() * 3);
    for (size_t i = 0; i < pixels_.size(); ++i) {
      rgb[3 * i] = pixels_[i].red;
      rgb[3 * i + 1] = pixels_[i].green;
      rgb[3 * i + 2] = pixels_[i].blue;
    }
    // PNG files are encoded by png_codec, the others always as 24-bit images.
    const bool ok =
        typeCode == kImageTypePng
            ? EncodeRgb8Png(rgb.data(), width_, height_, encoded, error)
            : Magick().encodeContainer(rgb.data(), width_, height_,
                                       typeCode == kImageTypeBmp ? "BMP3" : format, encoded, error);
    if (!ok) throw std::runtime_error(error);
  } catch (const std::exception& e) {
    lastError_ = "cannot encode " + path + ": " + e.what();
    return false;
  }

  // Write beside the target and rename over it only when complete: a failed or interrupted
  // save never leaves a truncated file where a good one was.
  return WriteFileAtomically(path, encoded, lastError_);
}

void CxImage::Destroy() {
  width_ = height_ = bitsPerPixel_ = 0;
  hasAlpha_ = false;
  pixels_.clear();
  pixels_.shrink_to_fit();
}

}  // namespace marlith
