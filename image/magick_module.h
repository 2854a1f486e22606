// GraphicsMagick's part of the image layer, built as a module of its own (libmarlith-magick.so)
// and opened the first time a file needs it. Linking GraphicsMagick loads its delegate libraries
// (HEIF, JPEG XL, AV1, X11, ...) and runs their start-up code in every program, about 20 ms,
// while the six-argument command's 8-bit PNGs and marlith-deblur's TIFFs are read and written
// without it. Private to image/.
// The functions report failure by their result and error, never by an exception, so that
// nothing is thrown across the module's edge.
#pragma once

#include <cstdint>
#include <string>
#include <string_view>
#include <vector>

#include "image/image_container.h"
#include "image/image_io.h"

namespace marlith {

// What CxImage keeps of a decoded file.
struct ContainerPixels {
  int32_t width = 0;
  int32_t height = 0;
  bool pseudoClass = false;  // palette and grey images, decoded as at most 8 bits per pixel
  bool hasAlpha = false;
  std::vector<PixelColor> pixels;  // row-major from the top row
};

struct MagickModule {
  // CxImage's decoding of bytes as format (a GraphicsMagick format name), or by content when
  // format is null; a CMYK JPEG is converted to RGB. error: "<path>: <reason>".
  bool (*decodeContainer)(std::string_view bytes, const char* format, const std::string& path,
                          ContainerPixels& out, std::string& error);
  // CxImage's 24-bit encoding of width x height RGB bytes as format ("JPEG" at quality 95,
  // "BMP3").
  bool (*encodeContainer)(const uint8_t* rgb, int32_t width, int32_t height, const char* format,
                          std::string& bytes, std::string& error);
  // ReadImageFile's decoding of everything but TIFF and PNG (metadata included, the
  // orientation not yet applied).
  bool (*read)(std::string_view bytes, const std::string& path, LoadedImage& out,
               std::string& error);
  // WriteImageFile's encoding of every type but TIFF.
  bool (*encode)(const LoadedImage& image, ImageFileType type, SampleDepth depth, int quality,
                 std::string& bytes, std::string& error);
  bool (*canWriteWebp)();
};

// The module, opened on the first call: from the installed library folder beside the program's
// folder, or from the build tree. Throws marlith::Error naming the paths tried when none opens.
const MagickModule& Magick();

}  // namespace marlith
