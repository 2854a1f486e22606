// Surface fitting over a rectangle: the values inside a rectangle of a plane replaced by a
// harmonic fill that meets the surrounding data, then smoothed in stages and blended back
// towards the data under a confidence mask.
#pragma once

#include <array>
#include <cstdint>
#include <functional>
#include <span>

namespace marlith {

struct SurfaceFitStage {
  int32_t filterId = 0;  // smoothing kernel id of the bank (see resolveSurfaceFitStages)
  int32_t repeats = 0;
};

struct SurfaceFitRequest {
  std::span<const double> input;  // width x height, row-major
  std::span<double> output;       // may be the same plane as input
  std::span<const double> mask;   // 1 keeps the data, 0 keeps the fitted value
  int32_t width = 0;
  int32_t height = 0;
  int32_t stageCount = -1;  // -1 and -2 select the default schedules
  std::array<SurfaceFitStage, 10> stages{};
  int32_t iterations = -1;  // smoothing iterations of the default schedules; -1 means 50
  int32_t x0 = 0, x1 = 0;   // first and last column of the rectangle; x0 < 0: all columns
  int32_t y0 = 0, y1 = 0;   // first and last row; y0 < 0 (with x0 >= 0): all rows
  // The debug fit hands its filled plane (width x height) to this writer before smoothing;
  // WriteSurfaceFitDebugImage of the image layer writes it as "surfaceFitOut1.png".
  std::function<void(std::span<const double> plane, int32_t width, int32_t height)> debugWriter;
};

// The stage list a request stands for: the defaults for stageCount -1 (filter 6 for
// min(iterations, 4), then filter 1 for the rest) and -2 (filter 6 for min(iterations, 2),
// then the empty id 1024 for the rest), iterations -1 meaning 50; otherwise the request's own.
struct ResolvedStages {
  int32_t count = 0;
  std::array<SurfaceFitStage, 10> stages{};
};
ResolvedStages resolveSurfaceFitStages(const SurfaceFitRequest& request);

// The three fits below, in order: copy the input into the output (through a private plane when
// they are the same plane); fill the rectangle [x0, x1] x [y0, y1] with a harmonic patch whose
// sides inside the image are the data's; then run the smoothing stages, each selecting a kernel
// by filter id (1 to 6 of the bank; 1024 selects the empty kernel, which does nothing; any other
// id keeps the previous stage's kernel, or nothing) and repeating "filter with edge replication,
// then output = mask x input + (1 - mask) x output". The request is not modified: the default
// schedule is resolved into a local copy (nothing reads it back). The kernel bank is built on
// first use. input, output and mask hold width x height values; the rectangle lies inside.

// Full-width and full-height rectangles take their open sides from the side's two corner
// values, start (first row or column) and end: entry 0 = start, entry n = end and, between,
// entry k = ((n - k) end + k start) / n. The blend runs from the end back towards the start on
// purpose. Code "DDDD" always. Returns 0.
int32_t fitSurfaceLinearSides(const SurfaceFitRequest& request);
// Full-width rectangles get a zero normal derivative on their column sides ("NNDD"),
// full-height ones on their row sides ("DDNN"). Returns 0.
int32_t fitSurfaceNeumannSides(const SurfaceFitRequest& request);
// As fitSurfaceNeumannSides, but a Poisson fill whose right-hand side is the data's 3 x 3
// Laplacian, and the filled plane is given to the request's debugWriter (when it has one)
// before smoothing. Returns 0.
int32_t fitSurfaceDebug(const SurfaceFitRequest& request);

}  // namespace marlith
