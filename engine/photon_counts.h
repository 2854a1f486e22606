// The camera's side of photon-count images: the baseline (offset) a camera adds to every sample,
// and how the noise variance grows with the light (the Poisson-Gaussian model). Planes are
// row-major doubles, width values a row, planes one after another (channels or slices).
#pragma once

#include <span>

namespace marlith {

// The camera offset: the 2nd percentile of the planes' 4 x 4 block means (read noise and
// photon noise averaged down), so the background of a sparse specimen, where no light but the
// background's falls, sets it. Assumes at least 1 x 1 x 1 samples.
double EstimateOffset(std::span<const double> planes, int width, int height, int planesCount);

// Variance of a sample against its expected value m above the offset, as the Poisson-Gaussian
// model has it: var(m) = (m + shift) / gain. gain: counts per unit of the planes; shift: the read
// noise variance (and the background's photon noise left above the offset) in the planes' units.
struct PhotonModel {
  double gain = 1.0;
  double shift = 0.0;
};

// Fits the model to planes whose offset was taken off: the 2 x 2 cells' second differences
// (a - b - c + d) / 2, whose variance is the cells' mean variance and which the smooth signal a
// blur leaves mostly cancels, binned by the cells' means; a robust variance in every bin
// (median absolute deviation) and a weighted line through them. A flat or degenerate image (no
// slope) gives the gain under which the mean variance is pure Poisson.
PhotonModel EstimatePhotonModel(std::span<const double> planes, int width, int height,
                                int planesCount);

}  // namespace marlith
