#include "fit/border_extension.h"

#include <gtest/gtest.h>

#include <cmath>

#include "dense_reference.h"
#include "fit/border_extension_surface_fit.h"

namespace marlith {
namespace {

// A smooth image whose opposite edges differ: a ramp plus a bump.
std::vector<double> Ramp(int W, int H, double phase) {
  std::vector<double> v(W * H);
  for (int i = 0, x = 0, y = 0; i < W * H; ++i, x = i % W, y = i / W)
    v[i] = 0.1 + 0.5 * x / W + 0.3 * y / H + 0.05 * std::sin(phase + 0.4 * x + 0.3 * y);
  return v;
}

using test::Ends;

// The left-right strip's fit: the image's last bx columns, a gap of 2 px, its first bx columns.
std::vector<double> LeftRightFit(const std::vector<double>& img, int W, int H, int px, int bx,
                                 Ends endsY) {
  const int SW = 2 * (bx + px);
  std::vector<double> lr(SW * H, 0.0), lw(SW * H, 0.0);
  for (int y = 0; y < H; ++y)
    for (int i = 0; i < bx; ++i) {
      lr[y * SW + i] = img[y * W + W - bx + i];
      lr[y * SW + SW - bx + i] = img[y * W + i];
      lw[y * SW + i] = lw[y * SW + SW - bx + i] = 0.5;
    }
  return test::DenseThinPlate(lr, lw, SW, H, Ends::kClamped, endsY);
}

// The top-bottom strip's fit of a W-wide plane: its last by rows, a gap of 2 py, its first by.
std::vector<double> TopBottomFit(const double* img, int W, int H, int py, int by, Ends endsX) {
  const int SH = 2 * (by + py);
  std::vector<double> tb(W * SH, 0.0), tw(W * SH, 0.0);
  for (int k = 0; k < by; ++k)
    for (int x = 0; x < W; ++x) {
      tb[k * W + x] = img[(H - by + k) * W + x];
      tb[(SH - by + k) * W + x] = img[k * W + x];
      tw[k * W + x] = tw[(SH - by + k) * W + x] = 0.5;
    }
  return test::DenseThinPlate(tb, tw, W, SH, endsX, Ends::kClamped);
}

// The extension written out step by step on the dense solver: left-right strip, top-bottom
// strip, corner block (weight 1.0 on its top rows, 0.5 on its bottom rows), then the rows of
// [second half of the gap | middle | first half of the gap].
std::vector<double> ReferenceExtension(const std::vector<double>& img, int W, int H, int px, int py,
                                       int bx, int by) {
  const int SW = 2 * (bx + px), SH = 2 * (by + py), PW = W + 2 * px;
  const auto lr = LeftRightFit(img, W, H, px, bx, Ends::kClamped);
  const auto tb = TopBottomFit(img.data(), W, H, py, by, Ends::kClamped);
  std::vector<double> co(SW * SH, 0.0), cw(SW * SH, 0.0);
  for (int k = 0; k < by; ++k)
    for (int x = 0; x < SW; ++x) {
      co[k * SW + x] = lr[(H - by + k) * SW + x];
      co[(SH - by + k) * SW + x] = lr[k * SW + x];
      cw[k * SW + x] = 1.0;
      cw[(SH - by + k) * SW + x] = 0.5;
    }
  for (int r = by; r < SH - by; ++r)
    for (int i = 0; i < bx; ++i) {
      co[r * SW + i] = tb[r * W + W - bx + i];
      co[r * SW + SW - bx + i] = tb[r * W + i];
      cw[r * SW + i] = cw[r * SW + SW - bx + i] = 0.5;
    }
  co = test::DenseThinPlate(co, cw, SW, SH);
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

// The fast extension on the dense solver: the left-right strip mirrored at its ends, the
// image's rows with their side margins, then a top-bottom strip across those rows, periodic
// along them: its rows by + py on go above the image, its rows by on below.
std::vector<double> ReferenceFastExtension(const std::vector<double>& img, int W, int H, int px,
                                           int py, int bx, int by) {
  const int SW = 2 * (bx + px), PW = W + 2 * px;
  const auto lr = LeftRightFit(img, W, H, px, bx, Ends::kMirrored);
  std::vector<double> out(PW * (H + 2 * py));
  for (int y = 0; y < H; ++y)
    for (int x = 0; x < PW; ++x)
      out[(py + y) * PW + x] = x < px       ? lr[y * SW + SW / 2 + x]
                               : x < px + W ? img[y * W + x - px]
                                            : lr[y * SW + bx + x - px - W];
  if (py == 0) return out;
  const auto tb = TopBottomFit(&out[py * PW], PW, H, py, by, Ends::kPeriodic);
  std::copy_n(&tb[(by + py) * PW], py * PW, out.begin());
  std::copy_n(&tb[by * PW], py * PW, out.begin() + (py + H) * PW);
  return out;
}

// Both extensions against their steps written out densely, two planes at once: each must come
// out as the reference of its own.
TEST(ExtendPeriodicBorder, MatchesTheStepsSolvedDenselyPlaneByPlane) {
  struct Case {
    int W, H, px, py, bx, by;
  };
  using Extend = std::vector<double> (*)(std::span<const double>, int32_t, int32_t, int32_t,
                                         int32_t, int32_t, int32_t, int32_t, int);
  using Reference =
      std::vector<double> (*)(const std::vector<double>&, int, int, int, int, int, int);
  const std::pair<Extend, Reference> fits[] = {
      {extendPeriodicBorderPlanes, ReferenceExtension},
      {extendPeriodicBorderPlanesFast, ReferenceFastExtension}};
  for (const auto& [extend, reference] : fits) {
    for (const Case& c : {Case{7, 6, 2, 1, 2, 2}, Case{6, 5, 3, 2, 1, 2}, Case{5, 7, 0, 2, 2, 1},
                          Case{6, 8, 2, 0, 6, 3}}) {
      const bool fast = extend == extendPeriodicBorderPlanesFast;
      std::vector<double> planes = Ramp(c.W, c.H, 0.5), second = Ramp(c.W, c.H, 2.0);
      planes.insert(planes.end(), second.begin(), second.end());
      const auto padded = extend(planes, 2, c.W, c.H, c.px, c.py, c.bx, c.by, 0);
      const auto first = reference(planes, c.W, c.H, c.px, c.py, c.bx, c.by);
      const auto other = reference(second, c.W, c.H, c.px, c.py, c.bx, c.by);
      ASSERT_EQ(padded.size(), 2 * first.size());
      for (size_t i = 0; i < first.size(); ++i) {  // values on the image's [0, 1] scale
        ASSERT_NEAR(padded[i], first[i], 1e-9)
            << fast << ": " << i << " of " << c.W << " x " << c.H;
        ASSERT_NEAR(padded[first.size() + i], other[i], 1e-9)
            << fast << ": " << i << " of " << c.W << " x " << c.H;
      }
      if (fast) continue;
      BorderExtensionRequest r{second, {}, c.W, c.H, c.px, c.py, 0, 0, c.bx, c.by};
      extendPeriodicBorder(r);
      EXPECT_EQ(r.paddedWidth, c.W + 2 * c.px);
      EXPECT_TRUE(std::equal(r.padded.begin(), r.padded.end(), padded.begin() + first.size()));
    }
  }
}

TEST(ExtendPeriodicBorderBySurfaceFit, KeepsTheImageAndNarrowsBothSeamsOfTheRepeatedPlane) {
  const int W = 24, H = 18, padX = 6, padY = 5;
  const auto image = Ramp(W, H, 0.0);
  for (int32_t pad : {padX, 0}) {  // no columns added for padX 0
    BorderExtensionRequest r{image, {}, W, H, pad, padY, 0, 0, 3, 3};
    bool wrote = false;
    EXPECT_EQ(extendPeriodicBorderBySurfaceFit(r, [&](auto...) { wrote = true; }), 0);
    EXPECT_TRUE(wrote);  // the debug fit's plane reached the writer
    const int PW = W + 2 * pad, PH = H + 2 * padY;
    ASSERT_EQ(r.paddedWidth * 1000 + r.paddedHeight, PW * 1000 + PH);
    ASSERT_EQ(r.padded.size(), size_t(PW * PH));
    auto img = [&](int x, int y) { return image[y * W + x]; };
    auto at = [&](int x, int y) { return r.padded[y * PW + x]; };
    for (int y = 0; y < H; ++y)
      for (int x = 0; x < W; ++x) ASSERT_EQ(at(x + pad, y + padY), img(x, y));
    // Repeated, the padded plane's jump from its last row (column) to its first is a small part
    // of the image's own jump, and each margin sample next to the image lies nearer to the
    // edge it continues than to the opposite one.
    for (int x = 0; x < W; ++x) {
      EXPECT_LT(std::fabs(at(x + pad, PH - 1) - at(x + pad, 0)),
                0.25 * std::fabs(img(x, H - 1) - img(x, 0)));
      const double below = at(x + pad, padY + H), above = at(x + pad, padY - 1);
      EXPECT_LT(std::fabs(below - img(x, H - 1)), std::fabs(below - img(x, 0))) << x;
      EXPECT_LT(std::fabs(above - img(x, 0)), std::fabs(above - img(x, H - 1))) << x;
    }
    for (int y = 0; y < H && pad > 0; ++y) {
      EXPECT_LT(std::fabs(at(PW - 1, y + padY) - at(0, y + padY)),
                0.25 * std::fabs(img(W - 1, y) - img(0, y)));
      const double right = at(pad + W, y + padY), left = at(pad - 1, y + padY);
      EXPECT_LT(std::fabs(right - img(W - 1, y)), std::fabs(right - img(0, y))) << y;
      EXPECT_LT(std::fabs(left - img(0, y)), std::fabs(left - img(W - 1, y))) << y;
    }
  }
}

}  // namespace
}  // namespace marlith
