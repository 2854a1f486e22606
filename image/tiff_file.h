// TIFF through libtiff, for what GraphicsMagick does not keep: floating-point samples at full
// precision, and EXIF (carried in Photoshop's EXIF resource, tag 34377, as Photoshop does).
// Private to image/: the public entry is image/image_io.h.
#pragma once

#include <string>
#include <string_view>

#include "image/image_io.h"

namespace marlith {

// The integer sample every writer stores for v: v clipped to [0, 1] (NaN as 0), times maxValue,
// rounded to nearest.
inline int QuantiseSample(double v, int maxValue) {
  const double clipped = v >= 0.0 ? (v <= 1.0 ? v : 1.0) : 0.0;
  return static_cast<int>(clipped * maxValue + 0.5);
}

// True when bytes start like a classic or BigTIFF file.
bool LooksLikeTiff(std::string_view bytes);

// What libtiff reads of the first image of a TIFF file.
struct TiffContents {
  // iccProfile and exif always; the size, planes, channels and depth (kFloat) only when the
  // samples are 32- or 64-bit floats (pixelsRead), which are then returned unscaled, as stored,
  // associated alpha divided out. Other sample kinds are left to GraphicsMagick.
  LoadedImage image;
  bool pixelsRead = false;
  int orientation = 1;  // the TIFF orientation tag, 1 to 8
};

// Reads a TIFF held in memory. Throws marlith::Error naming path when libtiff cannot read it,
// when it has more than kMaxImagePixels pixels (checked before any pixel memory is taken), or
// when its floating-point samples come in a layout other than grey or RGB plus extra samples.
TiffContents ReadTiff(std::string_view bytes, const std::string& path);

// The TIFF file (Deflate-compressed strips, samples interleaved, upright) holding image as
// 8- or 16-bit unsigned integers, rounded and clipped to [0, 1] first, or as 32-bit IEEE floats
// unclipped. Alpha is written as an unassociated extra sample; the ICC profile and EXIF block go
// into their tags. image must be consistent (see WriteImageFile). Throws marlith::Error naming
// path when libtiff fails.
std::string EncodeTiff(const LoadedImage& image, SampleDepth depth, const std::string& path);

}  // namespace marlith
