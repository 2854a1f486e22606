// GraphicsMagick's start-up and the guarded decoding every image reader of marlith goes through.
// Private to image/: it exposes Magick++ types.
#pragma once

#include <Magick++.h>

#include <cstdint>
#include <string>

namespace marlith {

// Largest image (width x height) the readers accept, checked from the file header before the
// pixels are decoded.
inline constexpr int64_t kMaxImagePixels = 256LL * 1024 * 1024;

// Initialises GraphicsMagick once per process (thread-safe) with its pixel resource limit at
// kMaxImagePixels. Call before any other Magick++ use.
void InitialiseImageLibrary();

// Decodes blob into image as format (a GraphicsMagick format name), or by its content when
// format is null. Reads the header first and refuses images outside 1 to kMaxImagePixels pixels
// before any pixel memory is taken. A decoder warning is tolerated unless it reports a truncated
// or corrupt stream, whose pixels would be partly invented. Returns false with the reason in
// error ("<path>: <reason>"); path only names the file in that message.
bool DecodeImageBlob(const Magick::Blob& blob, const char* format, const std::string& path,
                     Magick::Image& image, std::string& error);

}  // namespace marlith
