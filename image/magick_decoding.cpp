#include "image/magick_decoding.h"

#include <mutex>

namespace marlith {

void InitialiseImageLibrary() {
  static std::once_flag once;
  std::call_once(once, [] {
    Magick::InitializeMagick(nullptr);
    // A second guard behind the header check in DecodeImageBlob.
    MagickLib::SetMagickResourceLimit(MagickLib::PixelsResource, kMaxImagePixels);
    MagickLib::SetMagickResourceLimit(MagickLib::WidthResource, 1 << 20);
    MagickLib::SetMagickResourceLimit(MagickLib::HeightResource, 1 << 20);
  });
}

bool DecodeImageBlob(const Magick::Blob& blob, const char* format, const std::string& path,
                     Magick::Image& image, std::string& error) {
  try {
    Magick::Image header;
    if (format) header.magick(format);
    header.ping(blob);
    const int64_t columns = header.columns(), rows = header.rows();
    if (columns < 1 || rows < 1 || columns * rows > kMaxImagePixels) {
      error = path + ": an image of " + std::to_string(columns) + " x " + std::to_string(rows) +
              " pixels is outside the accepted 1 to " + std::to_string(kMaxImagePixels) + " pixels";
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
      error += " (images of at most " + std::to_string(kMaxImagePixels) + " pixels are accepted)";
    }
    return false;
  }
  return image.columns() > 0 && image.rows() > 0;
}

}  // namespace marlith
