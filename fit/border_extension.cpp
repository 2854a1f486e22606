#include "fit/border_extension.h"

#include <cassert>
#include <span>

#include "fit/seam_layout.h"
#include "fit/thin_plate_fit.h"
#include "plane/fftw_plan.h"

namespace marlith {

std::vector<double> extendPeriodicBorderPlanes(std::span<const double> planes, int32_t channels,
                                               int32_t width, int32_t height, int32_t padX,
                                               int32_t padY, int32_t bandX, int32_t bandY,
                                               int threads) {
  assert(bandX > 0 && bandX <= width && bandY > 0 && bandY <= height && padX >= 0 && padY >= 0);
  const SeamLayout L(width, height, padX, padY, bandX, bandY);
  const size_t imageSize = static_cast<size_t>(width) * height;
  const size_t paddedSize = static_cast<size_t>(width + 2 * padX) * (height + 2 * padY);

  // One system per seam serves every channel: the weights do not depend on the data. Each
  // system is released as soon as its channels are solved, so only one is held.
  auto fitStrips = [&](const std::vector<double>& weights, int w, int h, auto fill,
                       std::vector<double>& strips) {
    const size_t size = static_cast<size_t>(w) * h;
    strips.resize(size * channels);
    const ThinPlateSystem system(weights, w, h, ThinPlateMethod::kAutomatic, threads);
    for (int c = 0; c < channels; ++c) {
      const std::span<double> strip(strips.data() + c * size, size);
      fill(L, planes.data() + c * imageSize, strip.data());
      system.Solve(strip, strip);
    }
  };
  const size_t lrSize = L.lrSize(), tbSize = L.tbSize();
  std::vector<double> lr, tb, corner(L.cornerSize());
  fitStrips(LeftRightWeights(L), L.SW, L.H, FillLeftRight, lr);
  fitStrips(TopBottomWeights(L), L.W, L.SH, FillTopBottom, tb);
  // The padded planes are obtained only now, so the strips' systems did not share the memory
  // with them.
  std::vector<double> padded;
  ReservePlane(padded, paddedSize * channels);
  padded.resize(paddedSize * channels);
  const ThinPlateSystem cornerSystem(CornerWeights(L), L.SW, L.SH, ThinPlateMethod::kAutomatic,
                                     threads);
  for (int c = 0; c < channels; ++c) {
    const double* image = planes.data() + c * imageSize;
    FillCorner(L, lr.data() + c * lrSize, tb.data() + c * tbSize, corner.data());
    cornerSystem.Solve(corner, corner);
    AssemblePadded(L, image, lr.data() + c * lrSize, tb.data() + c * tbSize, corner.data(),
                   padded.data() + c * paddedSize);
  }
  return padded;
}

int32_t extendPeriodicBorder(BorderExtensionRequest& request) {
  request.paddedWidth = request.width + 2 * request.padX;
  request.paddedHeight = request.height + 2 * request.padY;
  request.padded.clear();  // a plane already held is released first
  request.padded =
      extendPeriodicBorderPlanes(request.image, 1, request.width, request.height, request.padX,
                                 request.padY, request.bandX, request.bandY);
  return 0;
}

}  // namespace marlith
