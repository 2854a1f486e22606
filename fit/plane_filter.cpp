#include "fit/plane_filter.h"

#include <algorithm>
#include <cassert>
#include <cmath>

#include "plane/plane_convolution.h"

namespace marlith {

PlaneEdge filterEdge(int32_t boundary) {
  switch (boundary) {
    case kBoundaryReplicate:
      return PlaneEdge::kReplicate;
    case kBoundaryWrap:
      return PlaneEdge::kWrapShortPeriod;
    default:
      return PlaneEdge::kZero;
  }
}

int32_t filterPlane(const FilterRequest& r) {
  const size_t n = static_cast<size_t>(r.width) * r.height;
  assert(r.input.size() >= n && r.output.size() >= n);
  if (r.orientation != kConvolution && r.orientation != kCorrelation) {
    std::fill_n(r.output.begin(), n, 0.0);
    return 0;
  }
  double scale = r.scale;
  if (std::fabs(scale) < 1e-10 || std::fabs(scale) >= 1e10) scale = 1.0;
  const std::vector<PlaneTap> taps =
      planeKernelTaps(r.kernel, r.kernelWidth, r.kernelHeight, r.orientation == kConvolution);
  convolvePlane(r.input, r.output, r.width, r.height, taps, filterEdge(r.boundary), scale);
  return 0;
}

}  // namespace marlith
