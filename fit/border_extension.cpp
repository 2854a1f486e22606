#include "fit/border_extension.h"

#include <cassert>
#include <memory>
#include <optional>
#include <span>
#include <utility>

#include "fit/seam_layout.h"
#include "fit/thin_plate_fit.h"
#include "fit/thin_plate_strip_solver.h"
#include "marlith/error.hpp"
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
  std::vector<double> padded = NewPlane(paddedSize * channels);
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

namespace {

// One strip's fit, solved directly: fill(strip) writes its data, which is weighed and replaced
// by the fit.
class DirectStripFit {
 public:
  DirectStripFit(std::vector<double> weights, int w, int h, TransformedEnds ends, int threads)
      : weights_(std::move(weights)),
        strip_(weights_.size()),
        solver_(ThinPlateStripSolver::TryCreate(weights_, w, h, threads, ends)) {
    // The weights are non-negative and not all zero, so every mode's system is regular.
    if (!solver_) throw Error("fast margins: a strip's banded system did not factorise");
  }
  template <typename Fill>
  const double* Solve(Fill fill) {
    fill(strip_.data());
    for (size_t i = 0; i < strip_.size(); ++i) strip_[i] *= weights_[i];
    solver_->SolveTransformed(strip_, strip_);
    return strip_.data();
  }

 private:
  std::vector<double> weights_, strip_;
  std::unique_ptr<ThinPlateStripSolver> solver_;
};

}  // namespace

std::vector<double> extendPeriodicBorderPlanesFast(std::span<const double> planes, int32_t channels,
                                                   int32_t width, int32_t height, int32_t padX,
                                                   int32_t padY, int32_t bandX, int32_t bandY,
                                                   int threads) {
  assert(bandX > 0 && bandX <= width && bandY > 0 && bandY <= height && padX >= 0 && padY >= 0);
  const SeamLayout L(width, height, padX, padY, bandX, bandY);
  const int PW = width + 2 * padX;
  const size_t imageSize = static_cast<size_t>(width) * height;
  const size_t paddedSize = static_cast<size_t>(PW) * (height + 2 * padY);
  std::vector<double> padded = NewPlane(paddedSize * channels);

  // The image's rows with their side margins, from the left-right strip: rows of
  // [second half of the gap | image row | first half of the gap].
  {
    std::optional<DirectStripFit> fit;
    if (padX > 0) fit.emplace(LeftRightWeights(L), L.SW, L.H, TransformedEnds::kMirrored, threads);
    for (int c = 0; c < channels; ++c) {
      const double* image = planes.data() + c * imageSize;
      const double* lr =
          fit ? fit->Solve([&](double* strip) { FillLeftRight(L, image, strip); }) : nullptr;
      for (int y = 0; y < height; ++y) {
        double* out = padded.data() + c * paddedSize + static_cast<size_t>(padY + y) * PW;
        std::copy_n(image + static_cast<size_t>(y) * width, width, out + padX);
        if (!lr) continue;
        const double* side = lr + static_cast<size_t>(y) * L.SW;
        std::copy_n(side + L.SW / 2, padX, out);
        std::copy_n(side + bandX, padX, out + padX + width);
      }
    }
  }
  // The rows above and below, from a top-bottom strip across those whole rows, which are
  // periodic now: its rows [bandY, bandY + padY) go below the image, the next padY above it.
  if (padY > 0) {
    const SeamLayout rows(PW, height, 0, padY, bandX, bandY);
    DirectStripFit fit(TopBottomWeights(rows), PW, rows.SH, TransformedEnds::kPeriodic, threads);
    for (int c = 0; c < channels; ++c) {
      double* out = padded.data() + c * paddedSize;
      const double* tb = fit.Solve(
          [&](double* strip) { FillTopBottom(rows, out + static_cast<size_t>(padY) * PW, strip); });
      std::copy_n(tb + static_cast<size_t>(bandY + padY) * PW, static_cast<size_t>(padY) * PW, out);
      std::copy_n(tb + static_cast<size_t>(bandY) * PW, static_cast<size_t>(padY) * PW,
                  out + static_cast<size_t>(padY + height) * PW);
    }
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
