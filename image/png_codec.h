// PNG decoding of 8-bit RGB and grey images and encoding of 8-bit RGB ones, faster than
// GraphicsMagick's PNG coder (measured in bench/png_bench.cpp): decoding with libspng, encoding
// with zlib on every core. The image layer uses them for the common case and keeps GraphicsMagick
// for every other PNG.
#pragma once

#include <cstdint>
#include <string>
#include <vector>

namespace marlith {

// Decodes bytes when they are a complete PNG of 8-bit RGB or grey samples without a transparency
// chunk (colour type 2 or 0, bit depth 8, no tRNS) of at most maxPixels pixels: width, height,
// whether the file is grey, and width x height x 3 bytes (red, green, blue, equal for grey; rows
// top down) as stored. Returns false, leaving the outputs unspecified, for anything else (other
// colour types and depths, damaged or cut short data), which the caller then hands to its
// general decoder.
bool DecodePng8(const std::string& bytes, int64_t maxPixels, int32_t& width, int32_t& height,
                bool& grey, std::vector<uint8_t>& rgb);

// The width and height a PNG file's header gives, read without decoding it; false when path is
// not a readable PNG file or its header is malformed.
bool ReadPngSize(const std::string& path, int32_t& width, int32_t& height);

// Encodes width x height x 3 bytes (red, green, blue) as an 8-bit RGB PNG into out (rows
// Paeth-filtered, zlib level 1 with run-length matches only, deflated in parts side by side).
// Returns false with a reason in error when zlib fails.
bool EncodeRgb8Png(const uint8_t* rgb, int32_t width, int32_t height, std::string& out,
                   std::string& error);

}  // namespace marlith
