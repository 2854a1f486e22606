#include "fit/plane_filter.h"

#include <algorithm>
#include <cassert>
#include <cmath>
#include <vector>

namespace marlith {
namespace {

// Maps an index outside [0, size) by the boundary mode; returns -1 for a tap that is left out.
inline int MapIndex(int i, int size, int32_t boundary) {
  if (i >= 0 && i < size) return i;
  switch (boundary) {
    case kBoundaryReplicate:
      return i < 0 ? 0 : size - 1;
    case kBoundaryWrap:
      // The period is size - 1, not size: index -1 reads size - 2. Deliberate, and kept. An
      // index still outside after this one shift (kernel wider than the plane) is left out.
      return i < 0 ? i + (size - 1) : i - (size - 1);
    default:
      return -1;
  }
}

}  // namespace

int32_t filterPlane(const FilterRequest& r) {
  const int W = r.width, H = r.height, kw = r.kernelWidth, kh = r.kernelHeight;
  const size_t n = static_cast<size_t>(W) * H;
  assert(r.input.size() >= n && r.output.size() >= n);
  double scale = r.scale;
  if (std::fabs(scale) < 1e-10 || std::fabs(scale) >= 1e10) scale = 1.0;

  // Taps in correlation order: output(R, C) += tap(i, j) input(R + j - cy, C + i - cx).
  std::vector<double> taps(r.kernel.begin(), r.kernel.begin() + static_cast<size_t>(kw) * kh);
  if (r.orientation == kConvolution) std::reverse(taps.begin(), taps.end());
  const int cx = (kw - 1) / 2, cy = (kh - 1) / 2;

  std::vector<double> result(n, 0.0);
  if (r.orientation == kConvolution || r.orientation == kCorrelation) {
    for (int y = 0; y < H; ++y) {
      for (int x = 0; x < W; ++x) {
        double sum = 0.0;
        for (int j = 0; j < kh; ++j) {
          const int sy = MapIndex(y + j - cy, H, r.boundary);
          if (sy < 0 || sy >= H) continue;
          for (int i = 0; i < kw; ++i) {
            const int sx = MapIndex(x + i - cx, W, r.boundary);
            if (sx < 0 || sx >= W) continue;
            sum +=
                taps[static_cast<size_t>(j) * kw + i] * r.input[static_cast<size_t>(sy) * W + sx];
          }
        }
        result[static_cast<size_t>(y) * W + x] = scale * sum;
      }
    }
  }
  // Written through a private plane, so input and output may be the same.
  std::copy(result.begin(), result.end(), r.output.begin());
  return 0;
}

}  // namespace marlith
