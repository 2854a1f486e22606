// Fuzz target: arbitrary bytes as an image file, loaded by the container (with and without a
// type from the name) and converted to planes and to a kernel as the file-mode run does.
#include <unistd.h>

#include <cstdint>
#include <cstdio>
#include <string>

#include "app/file_mode_run.h"
#include "image/image_container.h"
#include "marlith/error.hpp"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  static const std::string path = "/tmp/marlith-fuzz-image-" + std::to_string(getpid());
  if (FILE* f = std::fopen(path.c_str(), "wb")) {
    std::fwrite(data, 1, size, f);
    std::fclose(f);
  } else {
    return 0;
  }
  // The first byte picks the type code the name would give: none, BMP, JPEG or PNG.
  static const int32_t types[] = {0, 1, 3, 4};
  marlith::CxImage image;
  if (!image.Load(path, types[size ? data[0] % 4 : 0])) return 0;
  const marlith::ImagePlanes planes = marlith::ImageToPlanes(image);
  if (planes.planes.size() != static_cast<size_t>(planes.width) * planes.height * planes.channels) {
    __builtin_trap();
  }
  try {
    marlith::KernelFromImage(image);
  } catch (const marlith::Error&) {
    // A black image as a kernel: refused, as it should be.
  }
  return 0;
}
