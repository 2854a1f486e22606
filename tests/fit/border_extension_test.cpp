#include "fit/border_extension.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <cmath>

namespace marlith {
namespace {

// A smooth image whose opposite edges differ: a ramp plus a bump.
std::vector<double> Ramp(int W, int H, double phase) {
  std::vector<double> v(W * H);
  for (int y = 0; y < H; ++y)
    for (int x = 0; x < W; ++x)
      v[y * W + x] = 0.1 + 0.6 * x / W + 0.2 * y / H + 0.1 * std::sin(phase + 0.3 * x + 0.2 * y);
  return v;
}

// (B + diag(w)) x = w d solved densely by Gaussian elimination with partial pivoting, B the
// 5 x 5 biharmonic stencil with neighbours clamped into the plane.
std::vector<double> DenseThinPlate(const std::vector<double>& d, const std::vector<double>& w,
                                   int W, int H) {
  const int n = W * H;
  const int stencil[5][5] = {
      {0, 0, 1, 0, 0}, {0, 2, -8, 2, 0}, {1, -8, 20, -8, 1}, {0, 2, -8, 2, 0}, {0, 0, 1, 0, 0}};
  std::vector<double> a(static_cast<size_t>(n) * n, 0.0), b(n);
  for (int r = 0; r < H; ++r)
    for (int c = 0; c < W; ++c) {
      const int row = r * W + c;
      for (int j = 0; j < 5; ++j)
        for (int i = 0; i < 5; ++i) {
          const int rr = std::clamp(r + j - 2, 0, H - 1), cc = std::clamp(c + i - 2, 0, W - 1);
          a[static_cast<size_t>(row) * n + rr * W + cc] += stencil[j][i];
        }
      a[static_cast<size_t>(row) * n + row] += w[row];
      b[row] = w[row] * d[row];
    }
  for (int k = 0; k < n; ++k) {
    int p = k;
    for (int i = k + 1; i < n; ++i)
      if (std::fabs(a[i * n + k]) > std::fabs(a[p * n + k])) p = i;
    for (int j = 0; j < n; ++j) std::swap(a[k * n + j], a[p * n + j]);
    std::swap(b[k], b[p]);
    for (int i = k + 1; i < n; ++i) {
      const double f = a[i * n + k] / a[k * n + k];
      for (int j = k; j < n; ++j) a[i * n + j] -= f * a[k * n + j];
      b[i] -= f * b[k];
    }
  }
  std::vector<double> x(n);
  for (int k = n - 1; k >= 0; --k) {
    double s = b[k];
    for (int j = k + 1; j < n; ++j) s -= a[k * n + j] * x[j];
    x[k] = s / a[k * n + k];
  }
  return x;
}

// The extension written out step by step on the dense solver: left-right strip, top-bottom
// strip, corner block (weight 1.0 on its top rows, 0.5 on its bottom rows), then the rows of
// [second half of the gap | middle | first half of the gap].
std::vector<double> ReferenceExtension(const std::vector<double>& img, int W, int H, int px, int py,
                                       int bx, int by) {
  const int SW = 2 * (bx + px), SH = 2 * (by + py), PW = W + 2 * px;
  std::vector<double> lr(SW * H, 0.0), lw(SW * H, 0.0);
  for (int y = 0; y < H; ++y)
    for (int i = 0; i < bx; ++i) {
      lr[y * SW + i] = img[y * W + W - bx + i];
      lr[y * SW + SW - bx + i] = img[y * W + i];
      lw[y * SW + i] = lw[y * SW + SW - bx + i] = 0.5;
    }
  lr = DenseThinPlate(lr, lw, SW, H);
  std::vector<double> tb(W * SH, 0.0), tw(W * SH, 0.0);
  for (int k = 0; k < by; ++k)
    for (int x = 0; x < W; ++x) {
      tb[k * W + x] = img[(H - by + k) * W + x];
      tb[(SH - by + k) * W + x] = img[k * W + x];
      tw[k * W + x] = tw[(SH - by + k) * W + x] = 0.5;
    }
  tb = DenseThinPlate(tb, tw, W, SH);
  std::vector<double> co(SW * SH, 0.0), cw(SW * SH, 0.0);
  for (int k = 0; k < by; ++k)
    for (int x = 0; x < SW; ++x) {
      co[k * SW + x] = lr[(H - by + k) * SW + x];
      cw[k * SW + x] = 1.0;
      co[(SH - by + k) * SW + x] = lr[k * SW + x];
      cw[(SH - by + k) * SW + x] = 0.5;
    }
  for (int r = by; r < SH - by; ++r)
    for (int i = 0; i < bx; ++i) {
      co[r * SW + i] = tb[r * W + W - bx + i];
      co[r * SW + SW - bx + i] = tb[r * W + i];
      cw[r * SW + i] = cw[r * SW + SW - bx + i] = 0.5;
    }
  co = DenseThinPlate(co, cw, SW, SH);
  std::vector<double> out(PW * (H + 2 * py));
  auto row = [&](int at, const double* side, const double* middle) {
    for (int i = 0; i < px; ++i) {
      out[at * PW + i] = side[SW / 2 + i];
      out[at * PW + px + W + i] = side[bx + i];
    }
    for (int x = 0; x < W; ++x) out[at * PW + px + x] = middle[x];
  };
  for (int k = 0; k < py; ++k) row(k, &co[(SH / 2 + k) * SW], &tb[(SH / 2 + k) * W]);
  for (int y = 0; y < H; ++y) row(py + y, &lr[y * SW], &img[y * W]);
  for (int k = 0; k < py; ++k) row(py + H + k, &co[(by + k) * SW], &tb[(by + k) * W]);
  return out;
}

TEST(ExtendPeriodicBorder, MatchesTheStepsSolvedDensely) {
  struct Case {
    int W, H, px, py, bx, by;
  };
  for (const Case& c : {Case{7, 6, 2, 1, 2, 2}, Case{6, 5, 3, 2, 1, 2}, Case{5, 7, 0, 2, 2, 1}}) {
    const auto image = Ramp(c.W, c.H, 0.5);
    BorderExtensionRequest r{image, {}, c.W, c.H, c.px, c.py, 0, 0, c.bx, c.by};
    extendPeriodicBorder(r);
    const auto expected = ReferenceExtension(image, c.W, c.H, c.px, c.py, c.bx, c.by);
    ASSERT_EQ(r.padded.size(), expected.size());
    // Values are on the image's [0, 1] scale.
    for (size_t i = 0; i < expected.size(); ++i)
      ASSERT_NEAR(r.padded[i], expected[i], 1e-9)
          << "at " << i % r.paddedWidth << ", " << i / r.paddedWidth << " of " << c.W << " x "
          << c.H;
  }
}

TEST(ExtendPeriodicBorder, MakesThePlaneSeamlessWhenRepeated) {
  const int W = 40, H = 30, padX = 9, padY = 6;
  const auto image = Ramp(W, H, 1.0);
  BorderExtensionRequest r{image, {}, W, H, padX, padY, 0, 0, 3, 2};
  extendPeriodicBorder(r);
  const int PW = r.paddedWidth, PH = r.paddedHeight;
  const auto& p = r.padded;
  double insideX = 0.0, seamX = 0.0, insideY = 0.0, seamY = 0.0;
  for (int y = 0; y < PH; ++y) {
    for (int x = 0; x + 1 < PW; ++x)
      insideX = std::max(insideX, std::fabs(p[y * PW + x + 1] - p[y * PW + x]));
    seamX = std::max(seamX, std::fabs(p[y * PW] - p[y * PW + PW - 1]));
  }
  for (int x = 0; x < PW; ++x) {
    for (int y = 0; y + 1 < PH; ++y)
      insideY = std::max(insideY, std::fabs(p[(y + 1) * PW + x] - p[y * PW + x]));
    seamY = std::max(seamY, std::fabs(p[x] - p[(PH - 1) * PW + x]));
  }
  EXPECT_LE(seamX, insideX);
  EXPECT_LE(seamY, insideY);
  // Without the margins the seams jump by the ramp's full rise.
  double rawSeam = 0.0;
  for (int y = 0; y < H; ++y)
    rawSeam = std::max(rawSeam, std::fabs(image[y * W] - image[y * W + W - 1]));
  EXPECT_GT(rawSeam, 4 * seamX);
}

TEST(ExtendPeriodicBorderPlanes, EqualsOneCallPerPlane) {
  const int W = 16, H = 12;
  std::vector<double> planes = Ramp(W, H, 0.0);
  const auto second = Ramp(W, H, 2.0);
  planes.insert(planes.end(), second.begin(), second.end());
  const auto together = extendPeriodicBorderPlanes(planes, 2, W, H, 5, 4, 2, 3);
  for (int c = 0; c < 2; ++c) {
    BorderExtensionRequest r{
        std::span<const double>(planes).subspan(c * W * H, W * H), {}, W, H, 5, 4, 0, 0, 2, 3};
    extendPeriodicBorder(r);
    for (size_t i = 0; i < r.padded.size(); ++i)
      ASSERT_EQ(together[c * r.padded.size() + i], r.padded[i]);
  }
}

}  // namespace
}  // namespace marlith
