// Fuzz target: the kernel file readers on arbitrary bytes. The first byte picks the reader: the
// in-memory text and .npy parsers, or a kernel image read from a file (which goes through the
// image reader: libtiff's float path, EXIF and PNG chunk parsing, GraphicsMagick).
#include <unistd.h>

#include <cmath>
#include <cstddef>
#include <cstdint>
#include <cstdio>
#include <span>
#include <string>
#include <string_view>

#include "image/kernel_file.h"
#include "marlith/error.hpp"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  if (size < 1) return 0;
  const int reader = data[0] % 3;
  ++data;
  --size;
  marlith::KernelFile kernel;
  try {
    if (reader == 0) {
      kernel = marlith::ParseKernelText(std::string_view(reinterpret_cast<const char*>(data), size),
                                        "fuzz.txt");
    } else if (reader == 1) {
      kernel = marlith::ParseNpy(std::as_bytes(std::span(data, size)), "fuzz.npy");
    } else {
      static const std::string path =
          "/tmp/marlith-fuzz-kernel-" + std::to_string(getpid()) + ".img";
      FILE* f = std::fopen(path.c_str(), "wb");
      if (!f) return 0;
      std::fwrite(data, 1, size, f);
      std::fclose(f);
      kernel = marlith::ReadKernelFile(path);
    }
  } catch (const marlith::Error&) {
    return 0;  // refused with a reason, as it should be
  }
  // An accepted kernel is consistent, finite, non-negative and sums above 0.
  double sum = 0.0;
  for (double v : kernel.values) {
    if (!(v >= 0.0) || std::isinf(v)) __builtin_trap();
    sum += v;
  }
  if (kernel.values.size() != static_cast<size_t>(kernel.width) * kernel.height || !(sum > 0.0)) {
    __builtin_trap();
  }
  return 0;
}
