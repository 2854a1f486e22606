#include "image/plane_saving.h"

#include <algorithm>
#include <cmath>

#include "image/image_container.h"

namespace marlith {
namespace {

// sample x 255 as a byte: negative (and NaN) samples stay black, values above 255 are limited,
// the rest truncated toward zero (0.999 x 255 = 254.745 gives 254).
bool SampleByte(double sample, uint8_t& byte) {
  const double v = sample * 255.0;
  if (!(v >= 0.0)) return false;
  byte = static_cast<uint8_t>(static_cast<int>(std::min(v, 255.0)));
  return true;
}

SaveResult Finish(CxImage& image, const std::string& path) {
  SaveResult result;
  result.ok = image.Save(path, ImageTypeFromName(path));
  if (!result.ok) result.error = image.GetLastError();
  image.Destroy();
  return result;
}

}  // namespace

int32_t ImageTypeFromName(const std::string& path) {
  if (path.size() < 4) return kImageTypeUnknown;
  const std::string last = path.substr(path.size() - 3);
  if (last == "png") return kImageTypePng;
  if (last == "jpg") return kImageTypeJpeg;
  if (last == "bmp") return kImageTypeBmp;
  // Any other ending is no type we write.
  return kImageTypeUnknown;
}

SaveResult SaveGreyPlane(std::span<const double> plane, int32_t width, int32_t height,
                         const std::string& path, int32_t mode) {
  CxImage image;
  if (!image.Create(width, height, 24, 0)) return {false, image.GetLastError()};
  image.Clear(0);
  const std::span<PixelColor> pixels = image.Pixels();
  if (mode == 0) {
    for (size_t i = 0; i < pixels.size(); ++i) {
      uint8_t b;
      if (SampleByte(plane[i], b)) pixels[i] = PixelColor{b, b, b, 0};
    }
  } else if (mode == 1) {
    double largest = -1e6, smallest = 1e6;
    for (double v : plane.first(static_cast<size_t>(width) * height)) {
      largest = std::max(largest, v);
      smallest = std::min(smallest, v);
    }
    for (size_t i = 0; i < pixels.size(); ++i) {
      const double v = (plane[i] - smallest) / (largest - smallest) * 255.0;
      // A constant plane stretches 0 / 0: such pixels (and anything outside the byte range,
      // which a stretch cannot produce otherwise) are left black rather than converted.
      if (!(v >= 0.0 && v < 256.0)) continue;
      const auto b = static_cast<uint8_t>(static_cast<int>(v));
      pixels[i] = PixelColor{b, b, b, 0};
    }
  }
  return Finish(image, path);
}

SaveResult SaveColourPlanes(std::span<const double> planes, int32_t width, int32_t height,
                            int32_t channels, const std::string& path) {
  CxImage image;
  if (!image.Create(width, height, 24, 0)) return {false, image.GetLastError()};
  image.Clear(0);
  const size_t planeSize = static_cast<size_t>(width) * height;
  const std::span<PixelColor> pixels = image.Pixels();
  uint8_t PixelColor::*const channelByte[] = {&PixelColor::red, &PixelColor::green,
                                               &PixelColor::blue};
  for (int32_t c = 0; c < std::min(channels, 3); ++c) {
    const double* plane = planes.data() + c * planeSize;
    for (size_t i = 0; i < planeSize; ++i) {
      uint8_t b;
      if (SampleByte(plane[i], b)) pixels[i].*channelByte[c] = b;
    }
  }
  return Finish(image, path);
}

void WriteSurfaceFitDebugImage(std::span<const double> plane, int32_t width, int32_t height) {
  SaveGreyPlane(plane, width, height, "surfaceFitOut1.png", 0);
}

}  // namespace marlith
