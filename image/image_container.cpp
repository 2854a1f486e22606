#include "image/image_container.h"

#include <Magick++.h>
#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <filesystem>
#include <mutex>
#include <stdexcept>

#include "image/png_codec.h"

namespace marlith {
namespace {

// GraphicsMagick is initialised once per process; its own limits are a second guard behind the
// header check in Load.
void InitialiseImageLibrary() {
  static std::once_flag once;
  std::call_once(once, [] {
    Magick::InitializeMagick(nullptr);
    MagickLib::SetMagickResourceLimit(MagickLib::PixelsResource, CxImage::kMaxPixels);
    MagickLib::SetMagickResourceLimit(MagickLib::WidthResource, 1 << 20);
    MagickLib::SetMagickResourceLimit(MagickLib::HeightResource, 1 << 20);
  });
}

std::string OsError(const std::string& what, const std::string& path) {
  return what + " " + path + ": " + std::strerror(errno);
}

// The whole file, or an error text. Directories, unreadable and empty files are refused here.
bool ReadWholeFile(const std::string& path, std::string& bytes, std::string& error) {
  const int fd = ::open(path.c_str(), O_RDONLY | O_CLOEXEC);
  if (fd < 0) {
    error = OsError("cannot open", path);
    return false;
  }
  struct stat info {};
  if (fstat(fd, &info) != 0 || !S_ISREG(info.st_mode)) {
    error = path + " is not a regular file";
    ::close(fd);
    return false;
  }
  bytes.clear();
  bytes.reserve(static_cast<size_t>(info.st_size));
  char buffer[1 << 16];
  for (;;) {
    const ssize_t n = ::read(fd, buffer, sizeof buffer);
    if (n < 0) {
      if (errno == EINTR) continue;
      error = OsError("cannot read", path);
      ::close(fd);
      return false;
    }
    if (n == 0) break;
    bytes.append(buffer, static_cast<size_t>(n));
  }
  ::close(fd);
  if (bytes.empty()) {
    error = path + " is empty";
    return false;
  }
  return true;
}

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

  // Decodes with a definite format (or by content when format is null); false and the error
  // text when the decoder fails or the header announces too many pixels.
  auto decode = [&](const char* format, Magick::Image& image, std::string& error) {
    try {
      Magick::Image header;
      if (format) header.magick(format);
      header.ping(blob);
      const int64_t columns = header.columns(), rows = header.rows();
      if (columns < 1 || rows < 1 || columns * rows > kMaxPixels) {
        error = path + ": an image of " + std::to_string(columns) + " x " + std::to_string(rows) +
                " pixels is outside the accepted 1 to " + std::to_string(kMaxPixels) + " pixels";
        return false;
      }
      if (format) image.magick(format);
      image.read(blob);
    } catch (const Magick::Warning& w) {
      // A warning from a decoder that delivered an image (an unknown chunk, say) is not a
      // failure, but a truncated or corrupt stream is: its pixels would be partly invented.
      const std::string what = w.what();
      if (image.columns() == 0 || what.find("orrupt") != std::string::npos ||
          what.find("remature") != std::string::npos || what.find("runcat") != std::string::npos ||
          what.find("nexpected end") != std::string::npos) {
        error = path + ": " + what;
        return false;
      }
    } catch (const std::exception& e) {
      error = path + ": " + e.what();
      if (error.find("resource limit") != std::string::npos) {
        error += " (images of at most " + std::to_string(kMaxPixels) + " pixels are accepted)";
      }
      return false;
    }
    return image.columns() > 0 && image.rows() > 0;
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

void CxImage::SetPixelColor(int32_t x, int32_t y, PixelColor color) {
  pixels_[static_cast<size_t>(y) * width_ + x] = color;
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
  const std::filesystem::path target(path);
  const std::filesystem::path folder =
      target.has_parent_path() ? target.parent_path() : std::filesystem::path(".");
  std::string temporary = (folder / ("." + target.filename().string() + ".XXXXXX")).string();
  const int fd = ::mkstemp(temporary.data());
  if (fd < 0) {
    lastError_ = OsError("cannot write", path);
    return false;
  }
  const mode_t mask = ::umask(0);
  ::umask(mask);
  ::fchmod(fd, 0666 & ~mask);
  const char* data = png.empty() ? static_cast<const char*>(blob.data()) : png.data();
  size_t left = png.empty() ? blob.length() : png.size();
  bool ok = true;
  while (left > 0) {
    const ssize_t n = ::write(fd, data, left);
    if (n < 0 && errno == EINTR) continue;
    if (n <= 0) {
      ok = false;
      break;
    }
    data += n;
    left -= static_cast<size_t>(n);
  }
  if (ok && ::fsync(fd) != 0) ok = false;
  if (::close(fd) != 0) ok = false;
  if (ok && ::rename(temporary.c_str(), path.c_str()) != 0) ok = false;
  if (!ok) {
    lastError_ = OsError("cannot write", path);
    ::unlink(temporary.c_str());
    return false;
  }
  return true;
}

void CxImage::Destroy() {
  width_ = height_ = bitsPerPixel_ = 0;
  hasAlpha_ = false;
  pixels_.clear();
  pixels_.shrink_to_fit();
}

}  // namespace marlith
