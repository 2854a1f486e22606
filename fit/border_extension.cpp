#include "fit/border_extension.h"

#include <algorithm>
#include <cassert>

#include "fit/thin_plate_fit.h"

namespace marlith {
namespace {

// Plane sizes of one extension; SW and SH are the seam strips' extents across the seams.
struct Layout {
  int W, H, padX, padY, bandX, bandY, SW, SH;
  Layout(int w, int h, int px, int py, int bx, int by)
      : W(w),
        H(h),
        padX(px),
        padY(py),
        bandX(bx),
        bandY(by),
        SW(2 * (bx + px)),
        SH(2 * (by + py)) {}
  size_t lrSize() const { return static_cast<size_t>(SW) * H; }
  size_t tbSize() const { return static_cast<size_t>(W) * SH; }
  size_t cornerSize() const { return static_cast<size_t>(SW) * SH; }
};

// Left-right strip (SW x H): the image's last bandX columns on the left, its first bandX on the
// right, the gap between them to be fitted.
void FillLeftRight(const Layout& L, const double* image, double* strip) {
  std::fill_n(strip, L.lrSize(), 0.0);
  for (int y = 0; y < L.H; ++y) {
    const double* row = image + static_cast<size_t>(y) * L.W;
    double* s = strip + static_cast<size_t>(y) * L.SW;
    std::copy_n(row + L.W - L.bandX, L.bandX, s);
    std::copy_n(row, L.bandX, s + L.SW - L.bandX);
  }
}

std::vector<double> LeftRightWeights(const Layout& L) {
  std::vector<double> w(L.lrSize(), 0.0);
  for (int y = 0; y < L.H; ++y) {
    double* row = w.data() + static_cast<size_t>(y) * L.SW;
    std::fill_n(row, L.bandX, 0.5);
    std::fill_n(row + L.SW - L.bandX, L.bandX, 0.5);
  }
  return w;
}

// Top-bottom strip (W x SH): the image's last bandY rows on top, its first bandY at the bottom.
void FillTopBottom(const Layout& L, const double* image, double* strip) {
  std::fill_n(strip, L.tbSize(), 0.0);
  std::copy_n(image + static_cast<size_t>(L.H - L.bandY) * L.W, static_cast<size_t>(L.bandY) * L.W,
              strip);
  std::copy_n(image, static_cast<size_t>(L.bandY) * L.W,
              strip + static_cast<size_t>(L.SH - L.bandY) * L.W);
}

std::vector<double> TopBottomWeights(const Layout& L) {
  std::vector<double> w(L.tbSize(), 0.0);
  std::fill_n(w.begin(), static_cast<size_t>(L.bandY) * L.W, 0.5);
  std::fill_n(w.begin() + static_cast<ptrdiff_t>(L.SH - L.bandY) * L.W,
              static_cast<size_t>(L.bandY) * L.W, 0.5);
  return w;
}

// Corner block (SW x SH) from the fitted strips: the left-right strip's last bandY rows on top
// and its first bandY rows at the bottom, and between them the top-bottom strip's outer columns.
void FillCorner(const Layout& L, const double* lr, const double* tb, double* corner) {
  std::fill_n(corner, L.cornerSize(), 0.0);
  for (int k = 0; k < L.bandY; ++k) {
    std::copy_n(lr + static_cast<size_t>(L.H - L.bandY + k) * L.SW, L.SW,
                corner + static_cast<size_t>(k) * L.SW);
    std::copy_n(lr + static_cast<size_t>(k) * L.SW, L.SW,
                corner + static_cast<size_t>(L.SH - L.bandY + k) * L.SW);
  }
  for (int r = L.bandY; r < L.SH - L.bandY; ++r) {
    const double* t = tb + static_cast<size_t>(r) * L.W;
    double* c = corner + static_cast<size_t>(r) * L.SW;
    std::copy_n(t + L.W - L.bandX, L.bandX, c);
    std::copy_n(t, L.bandX, c + L.SW - L.bandX);
  }
}

// The top rows weigh 1.0 and the bottom rows 0.5: the asymmetry is deliberate.
std::vector<double> CornerWeights(const Layout& L) {
  std::vector<double> w(L.cornerSize(), 0.0);
  std::fill_n(w.begin(), static_cast<size_t>(L.bandY) * L.SW, 1.0);
  std::fill_n(w.begin() + static_cast<ptrdiff_t>(L.SH - L.bandY) * L.SW,
              static_cast<size_t>(L.bandY) * L.SW, 0.5);
  for (int r = L.bandY; r < L.SH - L.bandY; ++r) {
    double* row = w.data() + static_cast<size_t>(r) * L.SW;
    std::fill_n(row, L.bandX, 0.5);
    std::fill_n(row + L.SW - L.bandX, L.bandX, 0.5);
  }
  return w;
}

// Rows of the padded plane: [left padX | middle W | right padX].
void Assemble(const Layout& L, const double* image, const double* lr, const double* tb,
              const double* corner, double* padded) {
  const int PW = L.W + 2 * L.padX;
  auto row = [&](int paddedRow, const double* sideRow, int sideWidth, const double* middle) {
    double* out = padded + static_cast<size_t>(paddedRow) * PW;
    std::copy_n(sideRow + sideWidth / 2, L.padX, out);  // second half of the gap
    std::copy_n(middle, L.W, out + L.padX);
    std::copy_n(sideRow + L.bandX, L.padX, out + L.padX + L.W);  // first half of the gap
  };
  for (int k = 0; k < L.padY; ++k) {
    row(k, corner + static_cast<size_t>(L.SH / 2 + k) * L.SW, L.SW,
        tb + static_cast<size_t>(L.SH / 2 + k) * L.W);
  }
  for (int y = 0; y < L.H; ++y) {
    row(L.padY + y, lr + static_cast<size_t>(y) * L.SW, L.SW, image + static_cast<size_t>(y) * L.W);
  }
  for (int k = 0; k < L.padY; ++k) {
    row(L.padY + L.H + k, corner + static_cast<size_t>(L.bandY + k) * L.SW, L.SW,
        tb + static_cast<size_t>(L.bandY + k) * L.W);
  }
}

}  // namespace

std::vector<double> extendPeriodicBorderPlanes(std::span<const double> planes, int32_t channels,
                                               int32_t width, int32_t height, int32_t padX,
                                               int32_t padY, int32_t bandX, int32_t bandY) {
  assert(bandX > 0 && bandX <= width && bandY > 0 && bandY <= height && padX >= 0 && padY >= 0);
  const Layout L(width, height, padX, padY, bandX, bandY);
  const size_t imageSize = static_cast<size_t>(width) * height;
  const size_t paddedSize = static_cast<size_t>(width + 2 * padX) * (height + 2 * padY);
  std::vector<double> padded(paddedSize * channels);

  // One factorisation per seam serves every channel: the weights do not depend on the data.
  const ThinPlateSystem lrSystem(LeftRightWeights(L), L.SW, L.H);
  const ThinPlateSystem tbSystem(TopBottomWeights(L), L.W, L.SH);
  const ThinPlateSystem cornerSystem(CornerWeights(L), L.SW, L.SH);
  std::vector<double> lr(L.lrSize()), tb(L.tbSize()), corner(L.cornerSize());
  for (int c = 0; c < channels; ++c) {
    const double* image = planes.data() + c * imageSize;
    FillLeftRight(L, image, lr.data());
    lrSystem.Solve(lr, lr);
    FillTopBottom(L, image, tb.data());
    tbSystem.Solve(tb, tb);
    FillCorner(L, lr.data(), tb.data(), corner.data());
    cornerSystem.Solve(corner, corner);
    Assemble(L, image, lr.data(), tb.data(), corner.data(), padded.data() + c * paddedSize);
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
