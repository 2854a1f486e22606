// Fuzz target: the engine driver's kernel preparation on arbitrary small kernels, including
// zero, negative, denormal, infinite and NaN values.
#include <cmath>
#include <cstdint>
#include <cstring>
#include <vector>

#include "engine/engine_driver.h"
#include "marlith/error.hpp"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  if (size < 2) return 0;
  const int w = 1 + data[0] % 24, h = 1 + data[1] % 24;
  data += 2;
  size -= 2;
  std::vector<double> kernel(static_cast<size_t>(w) * h, 0.0);
  // Eight bytes a value where there are enough, else one byte scaled to the 0..255 range of a
  // kernel image (so that the 19 x 7 reference test can be reached too).
  for (size_t i = 0; i < kernel.size() && size > 0; ++i) {
    if (size >= 9 && data[0] == 0xFF) {
      std::memcpy(&kernel[i], data + 1, sizeof(double));
      data += 9;
      size -= 9;
    } else {
      kernel[i] = data[0];
      ++data;
      --size;
    }
  }
  try {
    const marlith::PreparedKernel k = marlith::PrepareKernel(kernel, w, h);
    if (k.width < 3 || k.height < 3 || k.values.size() != static_cast<size_t>(k.width) * k.height) {
      __builtin_trap();
    }
  } catch (const marlith::Error&) {
    // No positive value, or a value that is not finite: refused.
  }
  return 0;
}
