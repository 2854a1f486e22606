// Fuzz target: the C entry with arbitrary small sizes (zero and negative included), values,
// settings and boundary types. The arrays are as large as the sizes say, as a caller must
// make them.
#include <cstdint>
#include <cstring>
#include <vector>

#include "marlith/marlith.h"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  // Bytes are read from the front; eight at a time for a real where there are enough.
  auto byte = [&]() -> uint8_t { return size ? (--size, *data++) : 0; };
  auto real = [&]() {
    if (size < 8) return byte() / 64.0;
    double v;
    std::memcpy(&v, data, 8);
    data += 8, size -= 8;
    return v;
  };
  const int32_t w = static_cast<int8_t>(byte()) % 20, h = static_cast<int8_t>(byte()) % 20;
  const int32_t c = byte() % 5 - 1;
  const int32_t kw = static_cast<int8_t>(byte()) % 12, kh = static_cast<int8_t>(byte()) % 12;
  const uint8_t flags = byte();
  const double noise = (flags & 1) ? real() : byte() / 16.0;
  const double weight = (flags & 2) ? real() : byte() / 16.0;
  const int32_t boundary = static_cast<int8_t>(byte()) % 3;
  const size_t n = (w > 0 && h > 0 && c > 0) ? static_cast<size_t>(w) * h * c : 0;
  const size_t kn = (kw > 0 && kh > 0) ? static_cast<size_t>(kw) * kh : 0;
  std::vector<double> input(n + 1), output(n + 1), kernel(kn + 1);
  for (double& v : input) v = byte() / 255.0;
  for (double& v : kernel) v = (flags & 4) ? real() : byte() / 255.0;
  marlithDeconvolve((flags & 8) ? nullptr : input.data(), output.data(), w, h, c, kernel.data(), kw,
                    kh, noise, weight, boundary);
  return 0;
}
