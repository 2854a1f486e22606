#include "fit/surface_fit.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <tuple>

#include "support/test_support.h"

namespace marlith {
namespace {

// A fit of the rectangle [x0, x1] x [y0, y1] (x0 or y0 = -1: full width or full height) with
// no smoothing stages; tests that smooth set their own.
SurfaceFitRequest Request(const std::vector<double>& in, std::vector<double>& out,
                          const std::vector<double>& mask, int W, int H, int x0, int x1, int y0,
                          int y1) {
  SurfaceFitRequest r;
  std::tie(r.input, r.output, r.mask) = std::tuple(std::span(in), std::span(out), std::span(mask));
  std::tie(r.width, r.height, r.stageCount, r.x0, r.x1, r.y0, r.y1) =
      std::tuple(W, H, 0, x0, x1, y0, y1);
  return r;
}

TEST(FitSurface, HarmonicFillsReproduceBilinearDataAndLinearSidesBlendBackwards) {
  // u = a + b x + c y + d x y is discrete-harmonic for any spacing: the fill reproduces it from
  // its sides, on odd rectangles and, through the resampling of even sizes, on even ones.
  const int W = 12, H = 10;
  std::vector<double> in(W * H), out(W * H), mask(W * H, 0.0);
  for (int i = 0; i < W * H; ++i)
    in[i] = 0.2 + 0.03 * (i % W) + 0.01 * (i / W) + 0.002 * (i % W) * (i / W);
  std::vector<double> noisy = in;
  for (int y = 4; y <= 6; ++y)
    for (int x = 3; x <= 7; ++x) noisy[y * W + x] = 5.0;  // inside the sides: replaced by the fill
  for (auto fit : {fitSurfaceLinearSides, fitSurfaceNeumannSides})
    for (auto [x1, y1] : {std::pair{8, 7}, {9, 8}, {8, 8}}) {
      fit(Request(noisy, out, mask, W, H, 2, x1, 3, y1));
      for (int i = 0; i < W * H; ++i) EXPECT_NEAR(out[i], in[i], 1e-12) << x1 << " " << y1;
    }
  // One sample wide (high), the Neumann fill over the full width (height) is the straight line
  // between the first and last rows (columns).
  const std::vector<double> ends{0.2, 9, 9, 9, 1.0};
  std::vector<double> line(5);
  for (bool wide : {false, true}) {
    fitSurfaceNeumannSides(wide ? Request(ends, line, mask, 5, 1, 0, 4, -1, 0)
                                : Request(ends, line, mask, 1, 5, -1, 0, 0, 4));
    for (int k = 0; k < 5; ++k) EXPECT_NEAR(line[k], 0.2 + 0.2 * k, 1e-12) << wide << " " << k;
  }
  // Full width over rows 0..4 (x1 ignored): column 0 runs 0 to 1; its side entries are
  // ((4 - k) x 1 + k x 0) / 4 inside. Full height (y1 ignored): rows keep their own corners.
  std::vector<double> step(7 * 5, 0.0), other(7 * 5);
  std::fill(step.begin() + 28, step.end(), 1.0);
  fitSurfaceLinearSides(Request(step, out, mask, 7, 5, -1, 999, 0, 4));
  fitSurfaceLinearSides(Request(step, other, mask, 7, 5, 0, 6, -1, -77));
  const double expected[] = {0.0, 0.75, 0.5, 0.25, 1.0};
  for (int y = 0; y < 5; ++y) {
    EXPECT_DOUBLE_EQ(out[y * 7], expected[y]) << y;
    EXPECT_DOUBLE_EQ(out[y * 7 + 6], expected[y]) << y;
    for (int x = 0; x < 7 && y % 4 == 0; ++x) EXPECT_DOUBLE_EQ(other[y * 7 + x], y / 4);
  }
}

TEST(FitSurface, SmoothingKeepsMaskedDataExactlyAndCarriesKernelsOver) {
  const int W = 15, H = 11;
  const auto in = test::RandomValues(W * H, 3, 0.0, 1.0);
  std::vector<double> mask(W * H, 0.0);
  for (int i = 0; i < W * H; i += 3) mask[i] = 1.0;
  // The stages given, or a default schedule (count -1 or -2) of the given iterations.
  auto run = [&](std::vector<SurfaceFitStage> stages, bool inPlace = false, int32_t count = 0,
                 int32_t iterations = -1) {
    std::vector<double> out = in;
    auto r = Request(inPlace ? out : in, out, mask, W, H, 3, 11, 2, 8);
    r.stageCount = count ? count : static_cast<int32_t>(stages.size());
    r.iterations = iterations;
    std::copy(stages.begin(), stages.end(), r.stages.begin());
    fitSurfaceNeumannSides(r);
    return out;
  };
  const auto smoothed = run({{1, 2}}), unsmoothed = run({});
  for (int i = 0; i < W * H; i += 3) EXPECT_EQ(smoothed[i], in[i]);
  EXPECT_NE(unsmoothed, smoothed);
  EXPECT_EQ(run({{1, 2}}, true), smoothed);
  // Id 7 has no kernel: id 1's stays in force; alone it does nothing, as does the empty 1024.
  EXPECT_EQ(run({{1, 1}, {7, 1}}), smoothed);
  EXPECT_EQ(run({{7, 4}}), unsmoothed);
  EXPECT_EQ(run({{2, 1}, {1024, 3}, {9, 2}}), run({{2, 1}}));
  // The defaults: kernel 6 for up to 4 (-1) or 2 (-2) of the iterations (-1 meaning 50), then
  // kernel 1 (-1) or the empty one (-2) for the rest.
  EXPECT_EQ(run({}, false, -1, -1), run({{6, 4}, {1, 46}}));
  EXPECT_EQ(run({}, false, -1, 3), run({{6, 3}}));
  EXPECT_EQ(run({}, false, -2, 7), run({{6, 2}}));
}

TEST(FitSurfaceDebug, PoissonFillGivesBackCubicDataAndHandsItToTheWriter) {
  // The right-hand side is the data's 3 x 3 Laplacian, exact for cubic data away from the
  // plane's edges; on a square patch the fill returns the data. A rectangle inside a larger
  // plane, one that is the plane, and one a sample in.
  auto q = [](double x, double y) {
    return 0.3 + 0.004 * x * x - 0.002 * y * y + 0.003 * x * y + 2e-4 * x * x * x -
           1e-4 * y * y * y;
  };
  for (auto [W, H, x0, y0, side] :
       {std::tuple{12, 10, 3, 2, 7}, std::tuple{9, 9, 0, 0, 9}, std::tuple{9, 9, 1, 1, 7}}) {
    std::vector<double> in(W * H), out(W * H), mask(W * H, 0.0), written;
    for (int i = 0; i < W * H; ++i) in[i] = q(i % W, i / W);
    auto r = Request(in, out, mask, W, H, x0, x0 + side - 1, y0, y0 + side - 1);
    r.debugWriter = [&, size = W * 100 + H](std::span<const double> plane, int32_t w, int32_t h) {
      EXPECT_EQ(w * 100 + h, size);
      written.assign(plane.begin(), plane.end());
    };
    fitSurfaceDebug(r);
    for (int i = 0; i < W * H; ++i) EXPECT_NEAR(out[i], in[i], 1e-12) << W << " " << i;
    EXPECT_EQ(written, out);  // no smoothing stages: the filled plane is the result
  }
}

}  // namespace
}  // namespace marlith
