#include "fit/border_extension.h"

#include <cblas.h>

#include <algorithm>
#include <cassert>
#include <future>
#include <memory>

#include "fit/seam_layout.h"
#include "fit/thin_plate_fit.h"

namespace marlith {

std::vector<double> extendPeriodicBorderPlanes(std::span<const double> planes, int32_t channels,
                                               int32_t width, int32_t height, int32_t padX,
                                               int32_t padY, int32_t bandX, int32_t bandY) {
  assert(bandX > 0 && bandX <= width && bandY > 0 && bandY <= height && padX >= 0 && padY >= 0);
  const SeamLayout L(width, height, padX, padY, bandX, bandY);
  const size_t imageSize = static_cast<size_t>(width) * height;
  const size_t paddedSize = static_cast<size_t>(width + 2 * padX) * (height + 2 * padY);
  std::vector<double> padded(paddedSize * channels);

  // One factorisation per seam serves every channel: the weights do not depend on the data.
  // The three factorisations are independent of each other and are the bulk of the work, so
  // two of them run on other threads (each is deterministic: the result is the same).
  // BLAS threads inside each factorisation would only oversubscribe the cores (measured: 4x
  // slower with OpenBLAS's default threads on two cores).
  // The count is put back afterwards: the rest of the program keeps its BLAS threads.
  struct BlasThreads {
    int saved = openblas_get_num_threads();
    BlasThreads() { openblas_set_num_threads(1); }
    ~BlasThreads() { openblas_set_num_threads(saved); }
  } singleThreadedBlas;
  auto factorise = [](std::vector<double> weights, int w, int h) {
    return std::make_unique<ThinPlateSystem>(weights, w, h);
  };
  auto tbFuture = std::async(std::launch::async, factorise, TopBottomWeights(L), L.W, L.SH);
  auto cornerFuture = std::async(std::launch::async, factorise, CornerWeights(L), L.SW, L.SH);
  const auto lrSystem = factorise(LeftRightWeights(L), L.SW, L.H);
  const auto tbSystem = tbFuture.get();
  const auto cornerSystem = cornerFuture.get();
  std::vector<double> lr(L.lrSize()), tb(L.tbSize()), corner(L.cornerSize());
  for (int c = 0; c < channels; ++c) {
    const double* image = planes.data() + c * imageSize;
    FillLeftRight(L, image, lr.data());
    lrSystem->Solve(lr, lr);
    FillTopBottom(L, image, tb.data());
    tbSystem->Solve(tb, tb);
    FillCorner(L, lr.data(), tb.data(), corner.data());
    cornerSystem->Solve(corner, corner);
    AssemblePadded(L, image, lr.data(), tb.data(), corner.data(), padded.data() + c * paddedSize);
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
