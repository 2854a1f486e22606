#include "plane/plane_convolution.h"

#include <algorithm>
#include <cassert>
#include <cmath>

namespace marlith {

std::vector<PlaneTap> planeKernelTaps(std::span<const double> kernel, int32_t kernelWidth,
                                      int32_t kernelHeight, bool flip, double dropBelow) {
  const size_t n = static_cast<size_t>(kernelWidth) * kernelHeight;
  assert(kernel.size() >= n);
  const int32_t cx = (kernelWidth - 1) / 2, cy = (kernelHeight - 1) / 2;
  std::vector<PlaneTap> taps;
  taps.reserve(n);
  for (int32_t j = 0; j < kernelHeight; ++j)
    for (int32_t i = 0; i < kernelWidth; ++i) {
      const size_t at = static_cast<size_t>(j) * kernelWidth + i;
      const double value = kernel[flip ? n - 1 - at : at];
      if (std::fabs(value) < dropBelow) continue;
      taps.push_back({i - cx, j - cy, value});
    }
  return taps;
}

void convolvePlane(std::span<const double> input, std::span<double> output, int32_t width,
                   int32_t height, std::span<const PlaneTap> taps, PlaneEdge edge, double scale) {
  const size_t n = static_cast<size_t>(width) * height;
  assert(input.size() >= n && output.size() >= n);
  // Summed into a private plane, so input and output may be the same.
  std::vector<double> result(n, 0.0);
  forEachPlaneTap(taps, width, height, edge,
                  [&](size_t out, size_t in, double value) { result[out] += value * input[in]; });
  for (size_t i = 0; i < n; ++i) output[i] = scale * result[i];
}

}  // namespace marlith
