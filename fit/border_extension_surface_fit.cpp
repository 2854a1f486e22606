#include "fit/border_extension_surface_fit.h"

#include <algorithm>
#include <cassert>
#include <vector>

#include "fit/seam_layout.h"
#include "fit/surface_fit.h"

namespace marlith {
namespace {

// Fits a plane in place over its full width (x0 = -1) and all its rows, keeping the data where
// the mask is 1. The seam strips are always fitted this way; the corner block is given the same
// rectangle, the whole block, since all of it but its data rows is to be made up. Smoothing
// uses the first default schedule (-1, 50 iterations): the 17 x 17 Gaussian spreads the
// harmonic fill across the band edges, the 3 x 3 binomial then irons out what is left.
using DebugWriter = std::function<void(std::span<const double>, int32_t, int32_t)>;

void FitStrip(std::vector<double>& strip, const std::vector<double>& mask, int w, int h,
              int32_t (*fit)(const SurfaceFitRequest&), const DebugWriter& debugWriter = {}) {
  SurfaceFitRequest r;
  r.debugWriter = debugWriter;
  r.input = strip;
  r.output = strip;
  r.mask = mask;
  r.width = w;
  r.height = h;
  r.stageCount = -1;
  r.iterations = -1;
  r.x0 = -1;
  r.y0 = 0;
  r.y1 = h - 1;
  fit(r);
}

// Where the thin-plate extension weighs a sample (0.5 or 1.0), this one keeps it as data
// (mask 1): the fits here re-impose their data outright, and only known samples are weighted.
std::vector<double> DataMask(std::vector<double> weights) {
  for (double& w : weights) w = w > 0.0 ? 1.0 : 0.0;
  return weights;
}

}  // namespace

int32_t extendPeriodicBorderBySurfaceFit(BorderExtensionRequest& q,
                                         const DebugWriter& debugWriter) {
  assert(q.bandX > 0 && q.bandX <= q.width && q.bandY > 0 && q.bandY <= q.height);
  const SeamLayout L(q.width, q.height, q.padX, q.padY, q.bandX, q.bandY);
  q.paddedWidth = q.width + 2 * q.padX;
  q.paddedHeight = q.height + 2 * q.padY;
  q.padded.clear();
  const double* image = q.image.data();
  std::vector<double> lr(L.lrSize()), tb(L.tbSize()), corner(L.cornerSize());
  FillLeftRight(L, image, lr.data());
  FitStrip(lr, DataMask(LeftRightWeights(L)), L.SW, L.H, fitSurfaceDebug, debugWriter);
  FillTopBottom(L, image, tb.data());
  FitStrip(tb, DataMask(TopBottomWeights(L)), L.W, L.SH, fitSurfaceDebug, debugWriter);
  FillCorner(L, lr.data(), tb.data(), corner.data());
  FitStrip(corner, DataMask(CornerWeights(L)), L.SW, L.SH, fitSurfaceNeumannSides);
  q.padded.resize(static_cast<size_t>(q.paddedWidth) * q.paddedHeight);
  AssemblePadded(L, image, lr.data(), tb.data(), corner.data(), q.padded.data());
  return 0;
}

}  // namespace marlith
