#include "fit/seam_layout.h"

#include <algorithm>
#include <vector>

namespace marlith {

void FillLeftRight(const SeamLayout& L, const double* image, double* strip) {
  std::fill_n(strip, L.lrSize(), 0.0);
  for (int y = 0; y < L.H; ++y) {
    const double* row = image + static_cast<size_t>(y) * L.W;
    double* s = strip + static_cast<size_t>(y) * L.SW;
    std::copy_n(row + L.W - L.bandX, L.bandX, s);
    std::copy_n(row, L.bandX, s + L.SW - L.bandX);
  }
}

void FillTopBottom(const SeamLayout& L, const double* image, double* strip) {
  std::fill_n(strip, L.tbSize(), 0.0);
  std::copy_n(image + static_cast<size_t>(L.H - L.bandY) * L.W, static_cast<size_t>(L.bandY) * L.W,
              strip);
  std::copy_n(image, static_cast<size_t>(L.bandY) * L.W,
              strip + static_cast<size_t>(L.SH - L.bandY) * L.W);
}

void FillCorner(const SeamLayout& L, const double* lr, const double* tb, double* corner) {
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

void AssemblePadded(const SeamLayout& L, const double* image, const double* lr, const double* tb,
                    const double* corner, double* padded) {
  const int PW = L.W + 2 * L.padX;
  auto row = [&](int paddedRow, const double* sideRow, const double* middle) {
    double* out = padded + static_cast<size_t>(paddedRow) * PW;
    std::copy_n(sideRow + L.SW / 2, L.padX, out);
    std::copy_n(middle, L.W, out + L.padX);
    std::copy_n(sideRow + L.bandX, L.padX, out + L.padX + L.W);
  };
  for (int k = 0; k < L.padY; ++k) {
    row(k, corner + static_cast<size_t>(L.SH / 2 + k) * L.SW,
        tb + static_cast<size_t>(L.SH / 2 + k) * L.W);
  }
  for (int y = 0; y < L.H; ++y) {
    row(L.padY + y, lr + static_cast<size_t>(y) * L.SW, image + static_cast<size_t>(y) * L.W);
  }
  for (int k = 0; k < L.padY; ++k) {
    row(L.padY + L.H + k, corner + static_cast<size_t>(L.bandY + k) * L.SW,
        tb + static_cast<size_t>(L.bandY + k) * L.W);
  }
}

namespace {

// w = value on rows [first, first + count) of a width-wide weight plane.
void WeighRows(std::vector<double>& w, int width, int first, int count, double value) {
  std::fill_n(w.begin() + static_cast<ptrdiff_t>(first) * width, static_cast<size_t>(count) * width,
              value);
}

// w = value on the band samples at both ends of rows [first, last) of a width-wide plane.
void WeighRowEnds(std::vector<double>& w, int width, int band, int first, int last, double value) {
  for (int r = first; r < last; ++r) {
    double* row = w.data() + static_cast<size_t>(r) * width;
    std::fill_n(row, band, value);
    std::fill_n(row + width - band, band, value);
  }
}

}  // namespace

std::vector<double> LeftRightWeights(const SeamLayout& L) {
  std::vector<double> w(L.lrSize(), 0.0);
  WeighRowEnds(w, L.SW, L.bandX, 0, L.H, 0.5);
  return w;
}

std::vector<double> TopBottomWeights(const SeamLayout& L) {
  std::vector<double> w(L.tbSize(), 0.0);
  WeighRows(w, L.W, 0, L.bandY, 0.5);
  WeighRows(w, L.W, L.SH - L.bandY, L.bandY, 0.5);
  return w;
}

// The top rows weigh 1.0 and the bottom rows 0.5: the asymmetry is deliberate.
std::vector<double> CornerWeights(const SeamLayout& L) {
  std::vector<double> w(L.cornerSize(), 0.0);
  WeighRows(w, L.SW, 0, L.bandY, 1.0);
  WeighRows(w, L.SW, L.SH - L.bandY, L.bandY, 0.5);
  WeighRowEnds(w, L.SW, L.bandX, L.bandY, L.SH - L.bandY, 0.5);
  return w;
}

}  // namespace marlith
