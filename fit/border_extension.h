// Smooth periodic border extension: a plane enlarged by margins that pass smoothly from each
// edge to the opposite one, so that the enlarged plane is seamless when repeated.
#pragma once

#include <cstdint>
#include <span>
#include <vector>

namespace marlith {

struct BorderExtensionRequest {
  std::span<const double> image;  // width x height, row-major
  std::vector<double> padded;     // the result, replaced on every call
  int32_t width = 0;
  int32_t height = 0;
  int32_t padX = 0;          // columns added on each side
  int32_t padY = 0;          // rows added on each side
  int32_t paddedWidth = 0;   // set to width + 2 padX
  int32_t paddedHeight = 0;  // set to height + 2 padY
  int32_t bandX = 0;         // image columns used as data on each side of the left-right seam
  int32_t bandY = 0;         // image rows used as data on each side of the top-bottom seam
};

// Fills request.padded (paddedWidth x paddedHeight) with three weighted thin-plate fits: one
// across the left-right seam, one across the top-bottom seam, one for the corners. Requires
// 0 < bandX <= width and 0 < bandY <= height. Returns 0; throws marlith::Error when a fit fails.
int32_t extendPeriodicBorder(BorderExtensionRequest& request);

// The same for several planes of one size (channels stored one after another), fitting each
// seam once per plane with a single factorisation: the result equals per-plane calls.
// Returns the padded planes, channels x paddedWidth x paddedHeight. threads: threads for the
// fits (0: every core).
std::vector<double> extendPeriodicBorderPlanes(std::span<const double> planes, int32_t channels,
                                               int32_t width, int32_t height, int32_t padX,
                                               int32_t padY, int32_t bandX, int32_t bandY,
                                               int threads = 0);

// The same margins fitted directly, in two transform solves a plane, for the fast working
// sizes: first the left-right strip with its ends mirrored where the exact fit clamps them,
// then one top-bottom strip across the whole padded width, which is periodic along it, so
// that no corner block is needed. The result differs from the exact fit's near the corners by
// much less than the margins differ from the image; it takes about a hundredth of the time.
// Requires 0 < bandX <= width and 0 < bandY <= height. Throws marlith::Error when FFTW cannot
// plan.
std::vector<double> extendPeriodicBorderPlanesFast(std::span<const double> planes, int32_t channels,
                                                   int32_t width, int32_t height, int32_t padX,
                                                   int32_t padY, int32_t bandX, int32_t bandY,
                                                   int threads = 0);

}  // namespace marlith
