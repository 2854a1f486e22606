// Filtering a plane with a small two-dimensional kernel.
#pragma once

#include <cstdint>
#include <span>

#include "plane/plane_convolution.h"

namespace marlith {

// Handling of kernel taps that fall outside the plane (the PlaneEdge rules by number).
enum FilterBoundary : int32_t {
  kBoundaryZero = 1,       // left out (zero outside)
  kBoundaryReplicate = 2,  // indices clamped into the plane (edge replication)
  kBoundaryWrap = 3,       // index -1 reads size - 2, index size reads 1: a period of size - 1
};

// The edge rule of a boundary number; numbers other than 2 and 3 leave outside taps out.
PlaneEdge filterEdge(int32_t boundary);

// Orientation of the kernel.
enum FilterOrientation : int32_t {
  kConvolution = 1,  // kernel flipped in both axes
  kCorrelation = 2,  // kernel as stored
};

struct FilterRequest {
  std::span<const double> input;  // width x height, row-major
  std::span<double> output;       // width x height; may be the same plane as input
  int32_t width = 0;
  int32_t height = 0;
  double scale = 1.0;              // |scale| below 1e-10 or from 1e10 counts as 1
  std::span<const double> kernel;  // kernelWidth x kernelHeight, row-major
  int32_t kernelWidth = 0;
  int32_t kernelHeight = 0;
  int32_t boundary = kBoundaryReplicate;
  int32_t orientation = kCorrelation;
};

// output(R, C) = scale x sum over the kernel footprint of kernel x input, the kernel centred at
// ((kernelHeight - 1) / 2, (kernelWidth - 1) / 2): convolvePlane with the kernel's taps. An
// orientation other than 1 or 2 gives a zero plane. Filtering in place is allowed. Returns 0.
int32_t filterPlane(const FilterRequest& request);

}  // namespace marlith
