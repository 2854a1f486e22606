// Filtering a plane with a small kernel, and the walk over the samples each output reads: one
// walk that the direct filter and the filters' matrices (the thin-plate system's sparse one,
// the kernel fit's dense difference matrices) all make, so that they agree by construction.
#pragma once

#include <cstdint>
#include <span>
#include <vector>

namespace marlith {

// What a tap that falls outside the plane reads.
enum class PlaneEdge {
  kZero,       // nothing: the tap is left out
  kReplicate,  // the nearest edge sample (indices clamped into the plane)
  // Index -1 reads size - 2 and index size reads 1: a period of size - 1, not size. Deliberate,
  // and kept. An index still outside after this one shift (a kernel wider than the plane) is
  // left out.
  kWrapShortPeriod,
};

// One tap of a kernel: it reads the input at (x + dx, y + dy) for output (x, y).
struct PlaneTap {
  int32_t dx = 0;
  int32_t dy = 0;
  double value = 0.0;
};

// The taps of a kernelWidth x kernelHeight row-major kernel centred at ((kernelWidth - 1) / 2,
// (kernelHeight - 1) / 2), row by row, as a correlation reads them: the kernel as stored, or
// turned by 180 degrees when flip is set (a convolution). Taps with |value| < dropBelow are left
// out (0 keeps every tap; the smallest denormal drops exact zeros only).
std::vector<PlaneTap> planeKernelTaps(std::span<const double> kernel, int32_t kernelWidth,
                                      int32_t kernelHeight, bool flip, double dropBelow = 0.0);

// Where index i of an axis of the given size reads under the edge rule; -1 when it reads nothing.
inline int32_t planeEdgeIndex(int32_t i, int32_t size, PlaneEdge edge) {
  if (i >= 0 && i < size) return i;
  switch (edge) {
    case PlaneEdge::kReplicate:
      return i < 0 ? 0 : size - 1;
    case PlaneEdge::kWrapShortPeriod: {
      const int32_t j = i < 0 ? i + (size - 1) : i - (size - 1);
      return j >= 0 && j < size ? j : -1;
    }
    default:
      return -1;
  }
}

// Calls visit(output, input, value) for every output sample of a width x height plane in
// row-major order and, for each, every tap that reads a sample of the plane, in tap order;
// output and input are row-major sample indices. A filter sums value x input[input] into
// output[output]; a matrix adds value at (output, input).
template <typename Visit>
void forEachPlaneTap(std::span<const PlaneTap> taps, int32_t width, int32_t height, PlaneEdge edge,
                     Visit&& visit) {
  for (int32_t y = 0; y < height; ++y)
    for (int32_t x = 0; x < width; ++x) {
      const size_t output = static_cast<size_t>(y) * width + x;
      for (const PlaneTap& t : taps) {
        const int32_t sy = planeEdgeIndex(y + t.dy, height, edge);
        if (sy < 0) continue;
        const int32_t sx = planeEdgeIndex(x + t.dx, width, edge);
        if (sx < 0) continue;
        visit(output, static_cast<size_t>(sy) * width + sx, t.value);
      }
    }
}

// output(x, y) = scale x sum over the taps of value x input(x + dx, y + dy), read by the edge
// rule; input and output are width x height and may be the same plane.
void convolvePlane(std::span<const double> input, std::span<double> output, int32_t width,
                   int32_t height, std::span<const PlaneTap> taps, PlaneEdge edge,
                   double scale = 1.0);

}  // namespace marlith
