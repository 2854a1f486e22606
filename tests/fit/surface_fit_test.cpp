#include "fit/surface_fit.h"

#include <gtest/gtest.h>
#include <unistd.h>

#include <cmath>
#include <filesystem>
#include <random>

#include "support/test_support.h"

namespace marlith {
namespace {

std::vector<double> Noisy(int W, int H, unsigned seed) {
  std::mt19937 rng(seed);
  std::uniform_real_distribution<double> u(0.0, 1.0);
  std::vector<double> v(W * H);
  for (double& x : v) x = u(rng);
  return v;
}

SurfaceFitRequest Request(const std::vector<double>& in, std::vector<double>& out,
                          const std::vector<double>& mask, int W, int H) {
  SurfaceFitRequest r;
  r.input = in;
  r.output = out;
  r.mask = mask;
  r.width = W;
  r.height = H;
  return r;
}

TEST(ResolveSurfaceFitStages, DefaultSchedulesSplitTheIterations) {
  SurfaceFitRequest r;
  r.stageCount = -1;
  r.iterations = 3;
  auto s = resolveSurfaceFitStages(r);
  ASSERT_EQ(s.count, 2);
  EXPECT_EQ(s.stages[0].filterId, 6);
  EXPECT_EQ(s.stages[0].repeats, 3);
  EXPECT_EQ(s.stages[1].filterId, 1);
  EXPECT_EQ(s.stages[1].repeats, 0);
  r.stageCount = -2;
  r.iterations = -1;
  s = resolveSurfaceFitStages(r);
  EXPECT_EQ(s.stages[0].filterId, 6);
  EXPECT_EQ(s.stages[0].repeats, 2);
  EXPECT_EQ(s.stages[1].filterId, 1024);
  EXPECT_EQ(s.stages[1].repeats, 48);
  r.stageCount = 1;
  r.stages[0] = {2, 7};
  s = resolveSurfaceFitStages(r);
  EXPECT_EQ(s.count, 1);
  EXPECT_EQ(s.stages[0].repeats, 7);
}

TEST(FitSurface, HarmonicFillOfAnInnerRectangleReproducesBilinearData) {
  const int W = 12, H = 10;
  std::vector<double> in(W * H), out(W * H), mask(W * H, 0.0);
  for (int y = 0; y < H; ++y)
    for (int x = 0; x < W; ++x) in[y * W + x] = 0.2 + 0.03 * x + 0.01 * y + 0.002 * x * y;
  std::vector<double> noisy = in;
  for (int y = 4; y <= 6; ++y)
    for (int x = 3; x <= 7; ++x) noisy[y * W + x] = 5.0;  // inside the sides: replaced by the fill
  auto r = Request(noisy, out, mask, W, H);
  r.stageCount = 0;
  r.x0 = 2;
  r.x1 = 8;
  r.y0 = 3;
  r.y1 = 7;
  for (auto fit : {fitSurfaceLinearSides, fitSurfaceNeumannSides}) {
    fit(r);
    for (int i = 0; i < W * H; ++i) EXPECT_NEAR(out[i], in[i], 1e-12) << i;
  }
}

TEST(FitSurface, LinearSidesBlendFromTheEndValueBackTowardsTheStart) {
  // Full width over rows 0..4 of a 7 x 5 plane: column 0 runs 0 (row 0) to 1 (row 4); its side
  // entries are ((4 - k) x 1 + k x 0) / 4 inside: 0.75, 0.5, 0.25.
  const int W = 7, H = 5;
  std::vector<double> in(W * H, 0.0), out(W * H), mask(W * H, 0.0);
  for (int x = 0; x < W; ++x) in[4 * W + x] = 1.0;
  auto r = Request(in, out, mask, W, H);
  r.stageCount = 0;
  r.x0 = -1;
  r.x1 = 999;  // ignored for a full-width rectangle
  r.y0 = 0;
  r.y1 = 4;
  fitSurfaceLinearSides(r);
  const double expected[] = {0.0, 0.75, 0.5, 0.25, 1.0};
  for (int y = 0; y < H; ++y) {
    EXPECT_DOUBLE_EQ(out[y * W], expected[y]) << y;
    EXPECT_DOUBLE_EQ(out[y * W + W - 1], expected[y]) << y;
  }
  // Full height (x0 >= 0, y0 < 0) ignores y1 likewise; its rows run between the corner values
  // of their own row: all 0 on top, all 1 at the bottom.
  std::vector<double> other(W * H);
  r.output = other;
  r.x0 = 0;
  r.x1 = W - 1;
  r.y0 = -1;
  r.y1 = -77;
  fitSurfaceLinearSides(r);
  for (int x = 0; x < W; ++x) {
    EXPECT_DOUBLE_EQ(other[x], 0.0);
    EXPECT_DOUBLE_EQ(other[4 * W + x], 1.0);
  }
}

TEST(FitSurface, SmoothingKeepsMaskedDataExactlyAndCarriesKernelsOver) {
  const int W = 15, H = 11;
  const auto in = Noisy(W, H, 3);
  std::vector<double> mask(W * H, 0.0);
  for (int i = 0; i < W * H; i += 3) mask[i] = 1.0;
  auto run = [&](std::vector<SurfaceFitStage> stages, bool inPlace = false) {
    std::vector<double> out = in;
    auto r = Request(in, out, mask, W, H);
    if (inPlace) r.input = out;
    r.stageCount = static_cast<int32_t>(stages.size());
    std::copy(stages.begin(), stages.end(), r.stages.begin());
    r.x0 = 3;
    r.x1 = 11;
    r.y0 = 2;
    r.y1 = 8;
    fitSurfaceNeumannSides(r);
    return out;
  };
  const auto smoothed = run({{1, 2}});
  for (int i = 0; i < W * H; ++i)
    if (mask[i] == 1.0) {
      EXPECT_EQ(smoothed[i], in[i]);
    }
  EXPECT_EQ(run({{1, 2}}, true), smoothed);
  // Id 7 has no kernel: id 1's stays in force; alone it does nothing, as does the empty 1024.
  EXPECT_EQ(run({{1, 1}, {7, 1}}), smoothed);
  const auto unsmoothed = run({});
  EXPECT_NE(unsmoothed, smoothed);
  EXPECT_EQ(run({{7, 4}}), unsmoothed);
  EXPECT_EQ(run({{1024, 4}}), unsmoothed);
  EXPECT_EQ(run({{2, 1}, {1024, 3}, {9, 2}}), run({{2, 1}}));
}

TEST(FitSurfaceDebug, WritesTheFilledPlaneToItsDebugImage) {
  test::TempDir dir;
  const auto previous = std::filesystem::current_path();
  std::filesystem::current_path(dir.path());
  const int W = 9, H = 7;
  const auto in = Noisy(W, H, 5);
  std::vector<double> out(W * H), mask(W * H, 0.0);
  auto r = Request(in, out, mask, W, H);
  r.stageCount = 0;
  r.x0 = -1;
  r.y0 = 1;
  r.y1 = 5;
  fitSurfaceDebug(r);
  EXPECT_TRUE(std::filesystem::exists("surfaceFitOut1.png"));
  std::filesystem::current_path(previous);
  // Rows outside the rectangle are untouched; the fill keeps the first and last rows.
  for (int x = 0; x < W; ++x) {
    EXPECT_EQ(out[x], in[x]);
    EXPECT_NEAR(out[W + x], in[W + x], 1e-12);
    EXPECT_NEAR(out[5 * W + x], in[5 * W + x], 1e-12);
  }
}

}  // namespace
}  // namespace marlith
