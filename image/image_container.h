// The in-memory image the program loads its input and kernel into and saves its result through,
// backed by libspng for 8-bit RGB and grey PNGs and by GraphicsMagick (its module) for the rest.
// Only what the program needs: load and save by type code, size, colour type, and pixel access
// as blue, green, red and alpha bytes.
#pragma once

#include <cstdint>
#include <span>
#include <string>
#include <vector>

namespace marlith {

// Image file type codes: 0 unknown (detect from content), 1 BMP, 3 JPEG, 4 PNG.
enum ImageTypeCode : int32_t {
  kImageTypeUnknown = 0,
  kImageTypeBmp = 1,
  kImageTypeJpeg = 3,
  kImageTypePng = 4,
};

// A pixel colour in the container's byte order.
struct PixelColor {
  uint8_t blue = 0;
  uint8_t green = 0;
  uint8_t red = 0;
  uint8_t alpha = 0;
};

class CxImage {
 public:
  CxImage();
  ~CxImage();
  CxImage(const CxImage&) = delete;
  CxImage& operator=(const CxImage&) = delete;

  // Decodes the file at path (UTF-8). A type code from 1 to 10 is tried first; when it is
  // 0 or that decoding fails, the format is detected from the content. Returns true when an
  // image was decoded; otherwise GetLastError() says why (the first attempt's error when a
  // definite type was asked for). Images above kMaxPixels are refused before decoding. A
  // CMYK JPEG is converted to RGB.
  bool Load(const std::string& path, int32_t typeCode);

  int32_t GetWidth() const { return width_; }
  int32_t GetHeight() const { return height_; }
  // 4 when the image has an alpha layer; otherwise 2 above 8 bits per pixel; otherwise 1
  // (palette and grey images).
  int32_t GetColorType() const;
  // The colour at (x, y), row 0 at the top; alpha is 255 unless withAlpha and the image has an
  // alpha layer. (x, y) must lie inside the image.
  PixelColor GetPixelColor(int32_t x, int32_t y, bool withAlpha = true) const;
  // Every pixel, row-major from the top row, alpha as stored (0 in a created image): for loops
  // over the whole image, which a call per pixel would slow several times over.
  std::span<const PixelColor> Pixels() const { return pixels_; }
  std::span<PixelColor> Pixels() { return pixels_; }

  // A new width x height image of the given bits per pixel (24 here), all bytes 0.
  bool Create(int32_t width, int32_t height, int32_t bitsPerPixel, int32_t typeCode);
  void Clear(uint8_t value);
  // Encodes the image as typeCode (1, 3 or 4) and writes it to path. The bytes go to a
  // temporary file in the target folder that is renamed over path only when complete, so a
  // failed save leaves any previous file at path untouched. Returns false (and sets the last
  // error) when the type is unknown or the file cannot be written.
  bool Save(const std::string& path, int32_t typeCode);
  // Releases the pixels; the object can be loaded again.
  void Destroy();

  const std::string& GetLastError() const { return lastError_; }

  // Largest image (width x height) that Load accepts, checked from the file header before
  // the pixels are decoded.
  static constexpr int64_t kMaxPixels = 256LL * 1024 * 1024;

 private:
  int32_t width_ = 0;
  int32_t height_ = 0;
  int32_t bitsPerPixel_ = 0;
  bool hasAlpha_ = false;
  std::vector<PixelColor> pixels_;  // row-major, row 0 at the top
  std::string lastError_;
};

}  // namespace marlith
