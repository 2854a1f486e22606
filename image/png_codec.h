// PNG decoding of 8-bit RGB and grey images and encoding of 8-bit RGB ones, faster than
// GraphicsMagick's PNG coder (measured in bench/png_bench.cpp): decoding with libspng, encoding
// with zlib on every core. The image layer uses them for the common case and keeps GraphicsMagick
// for every other PNG.
#pragma once

#include <cstdint>
#include <string>
#include <string_view>
#include <vector>

#include "image/image_io.h"

namespace marlith {

// Decodes bytes when they are a complete PNG of 8-bit RGB or grey samples without a transparency
// chunk (colour type 2 or 0, bit depth 8, no tRNS) of at most maxPixels pixels: width, height,
// whether the file is grey, and width x height x 3 bytes (red, green, blue, equal for grey; rows
// top down) as stored. Returns false, leaving the outputs unspecified, for anything else (other
// colour types and depths, damaged or cut short data), which the caller then hands to its
// general decoder. Text and profile chunks are left out of what libspng sees: their contents do
// not change the pixels, and inflated they can take gigabytes.
bool DecodePng8(const std::string& bytes, int64_t maxPixels, int32_t& width, int32_t& height,
                bool& grey, std::vector<uint8_t>& rgb);

// Decodes any PNG (every colour type and bit depth, palette, transparency chunk, interlacing)
// with libspng for ReadImageFile: grey (grey files and palettes of grey colours only) or RGB,
// alpha for grey+alpha, RGBA and a transparency chunk, k16 for 16-bit files, else k8. Its ICC
// profile (iCCP), XMP packet (iTXt "XML:com.adobe.xmp") and EXIF (eXIf) are kept. Text and
// profile chunks are never inflated by libspng (see WithoutPngTextChunks): a small file cannot
// make the decoder take gigabytes, and a long comment does not stop the image loading; a profile
// or XMP packet inflating past kMaxMetadataBytes is left out with a warning. Returns false with
// "<path>: <reason>" in error for a damaged file or one of more than maxPixels pixels (checked
// before the pixels are decoded).
bool DecodePngImage(std::string_view bytes, const std::string& path, int64_t maxPixels,
                    LoadedImage& out, std::string& error);

// The width and height a PNG file's header gives, read without decoding it; false when path is
// not a readable PNG file or its header is malformed.
bool ReadPngSize(const std::string& path, int32_t& width, int32_t& height);

// Encodes width x height x 3 bytes (red, green, blue) as an 8-bit RGB PNG into out (rows
// Paeth-filtered, zlib level 1 with run-length matches only, deflated in parts side by side).
// Returns false with a reason in error when zlib fails.
bool EncodeRgb8Png(const uint8_t* rgb, int32_t width, int32_t height, std::string& out,
                   std::string& error);

}  // namespace marlith
