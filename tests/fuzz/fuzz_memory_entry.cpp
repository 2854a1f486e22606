// Fuzz target: the C entry with arbitrary small sizes (zero and negative included), values,
// settings and boundary types. The arrays are as large as the sizes say, as a caller must
// make them.
#include <cstdint>
#include <cstring>
#include <vector>

#include "marlith/marlith.h"

namespace {

struct Reader {
  const uint8_t* data;
  size_t size;
  uint8_t Byte() {
    if (size == 0) return 0;
    --size;
    return *data++;
  }
  double Real() {
    if (size < 8) return Byte() / 64.0;
    double v;
    std::memcpy(&v, data, 8);
    data += 8;
    size -= 8;
    return v;
  }
};

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  Reader r{data, size};
  const int32_t w = static_cast<int8_t>(r.Byte()) % 20, h = static_cast<int8_t>(r.Byte()) % 20;
  const int32_t c = r.Byte() % 5 - 1;
  const int32_t kw = static_cast<int8_t>(r.Byte()) % 12, kh = static_cast<int8_t>(r.Byte()) % 12;
  const uint8_t flags = r.Byte();
  const double noise = (flags & 1) ? r.Real() : r.Byte() / 16.0;
  const double weight = (flags & 2) ? r.Real() : r.Byte() / 16.0;
  const int32_t boundary = static_cast<int8_t>(r.Byte()) % 3;
  const size_t n = (w > 0 && h > 0 && c > 0) ? static_cast<size_t>(w) * h * c : 0;
  const size_t kn = (kw > 0 && kh > 0) ? static_cast<size_t>(kw) * kh : 0;
  std::vector<double> input(n + 1), output(n + 1), kernel(kn + 1);
  for (double& v : input) v = r.Byte() / 255.0;
  for (double& v : kernel) v = (flags & 4) ? r.Real() : r.Byte() / 255.0;
  marlithDeconvolve((flags & 8) ? nullptr : input.data(), output.data(), w, h, c, kernel.data(), kw,
                    kh, noise, weight, boundary);
  return 0;
}
