#include "support/test_support.h"

#include <cmath>

namespace marlith::test {

double Psnr(std::span<const double> a, std::span<const double> b, int width, int height,
            int channels, int margin) {
  double sum = 0.0;
  size_t count = 0;
  for (int c = 0; c < channels; ++c) {
    for (int y = margin; y < height - margin; ++y) {
      for (int x = margin; x < width - margin; ++x) {
        const size_t i = (static_cast<size_t>(c) * height + y) * width + x;
        const double d = a[i] - b[i];
        sum += d * d;
        ++count;
      }
    }
  }
  return 10.0 * std::log10(1.0 / (sum / static_cast<double>(count)));
}

}  // namespace marlith::test
