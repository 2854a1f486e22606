#include "fit/harmonic_patch_solver.h"

#include <cassert>
#include <cmath>
#include <numbers>

#include "engine/fftw_plan.h"

namespace marlith {
namespace {

// The unknowns along one axis of nIntervals: a Dirichlet axis (both sides 'D') solves the
// inner points with a sine transform, a Neumann axis (both sides 'N') every point with a cosine
// transform.
struct Axis {
  bool neumann;
  int first;  // first unknown point
  int count;  // number of unknowns
  int intervals;
  fftw_r2r_kind kind() const { return neumann ? FFTW_REDFT00 : FFTW_RODFT00; }
  // Eigenvalue of the second difference (times intervals^2) for mode k.
  double eigenvalue(int k) const {
    const double s = neumann ? std::sin(std::numbers::pi * k / (2.0 * intervals))
                             : std::sin(std::numbers::pi * (k + 1) / (2.0 * intervals));
    return -4.0 * intervals * static_cast<double>(intervals) * s * s;
  }
  // Inverse-transform normalisation.
  double norm() const { return neumann ? 2.0 * (count - 1) : 2.0 * (count + 1); }
};

Axis MakeAxis(char a, [[maybe_unused]] char b, int intervals) {
  assert(a == b && "sides of one axis share their condition");
  if (a == 'N') return {true, 0, intervals + 1, intervals};
  return {false, 1, intervals - 1, intervals};
}

}  // namespace

std::vector<double> resampleLinear(std::span<const double> values, int m) {
  const int n = static_cast<int>(values.size());
  std::vector<double> out(m);
  if (n == 1) {
    std::fill(out.begin(), out.end(), values[0]);
    return out;
  }
  for (int i = 0; i < m; ++i) {
    const double t = m == 1 ? 0.0 : static_cast<double>(i) * (n - 1) / (m - 1);
    const int j = std::min(static_cast<int>(t), n - 2);
    const double f = t - j;
    out[i] = f == 0.0 ? values[j] : (1.0 - f) * values[j] + f * values[j + 1];
  }
  return out;
}

void solveGridPoisson(std::vector<double>& u, int nx, int ny, const std::string& code,
                      std::span<const double> rhs) {
  const int W = nx + 1;
  const Axis ax = MakeAxis(code[0], code[1], nx);
  const Axis ay = MakeAxis(code[2], code[3], ny);
  if (ax.count < 1 || ay.count < 1) return;  // no unknowns
  const double wx = static_cast<double>(nx) * nx, wy = static_cast<double>(ny) * ny;
  // Right-hand side at the unknowns, Dirichlet neighbours moved over:
  // wx (u[i-1] - 2u + u[i+1]) + wy (u[j-1] - 2u + u[j+1]) = nx ny rhs.
  const size_t n = static_cast<size_t>(ax.count) * ay.count;
  auto f = AllocateFftwBuffer<double>(n);
  for (int b = 0; b < ay.count; ++b) {
    const int j = ay.first + b;
    for (int a = 0; a < ax.count; ++a) {
      const int i = ax.first + a;
      double v =
          rhs.empty() ? 0.0 : static_cast<double>(nx) * ny * rhs[static_cast<size_t>(j) * W + i];
      if (!ax.neumann) {
        if (i == 1) v -= wx * u[static_cast<size_t>(j) * W];
        if (i == nx - 1) v -= wx * u[static_cast<size_t>(j) * W + nx];
      }
      if (!ay.neumann) {
        if (j == 1) v -= wy * u[i];
        if (j == ny - 1) v -= wy * u[static_cast<size_t>(ny) * W + i];
      }
      f[static_cast<size_t>(b) * ax.count + a] = v;
    }
  }
  FftwPlan plan;
  {
    std::lock_guard<std::mutex> lock(FftwPlannerMutex());
    fftw_plan_with_nthreads(1);
    plan = AdoptFftwPlan(
        fftw_plan_r2r_2d(ay.count, ax.count, f.get(), f.get(), ay.kind(), ax.kind(), FFTW_ESTIMATE),
        "trigonometric transform of a patch");
  }
  fftw_execute(plan.get());
  const double scale = 1.0 / (ax.norm() * ay.norm());
  for (int b = 0; b < ay.count; ++b)
    for (int a = 0; a < ax.count; ++a) {
      const double lambda = ax.eigenvalue(a) + ay.eigenvalue(b);
      f[static_cast<size_t>(b) * ax.count + a] *= scale / lambda;
    }
  fftw_execute(plan.get());  // these transforms are their own inverses, up to the scale
  for (int b = 0; b < ay.count; ++b)
    for (int a = 0; a < ax.count; ++a)
      u[static_cast<size_t>(ay.first + b) * W + ax.first + a] =
          f[static_cast<size_t>(b) * ax.count + a];
}

namespace {

// A w x h plane resampled linearly (rows, then columns) to W x H.
std::vector<double> ResampleGrid(std::span<const double> plane, int w, int h, int W, int H) {
  std::vector<double> rows(static_cast<size_t>(W) * h);
  for (int y = 0; y < h; ++y) {
    const auto r = resampleLinear(plane.subspan(static_cast<size_t>(y) * w, w), W);
    std::copy(r.begin(), r.end(), rows.begin() + static_cast<ptrdiff_t>(y) * W);
  }
  std::vector<double> out(static_cast<size_t>(W) * H), column(h);
  for (int x = 0; x < W; ++x) {
    for (int y = 0; y < h; ++y) column[y] = rows[static_cast<size_t>(y) * W + x];
    const auto c = resampleLinear(column, H);
    for (int y = 0; y < H; ++y) out[static_cast<size_t>(y) * W + x] = c[y];
  }
  return out;
}

int32_t SolvePatch(HarmonicPatch& p, std::span<const double> rhs) {
  const int W = p.width, H = p.height;
  const bool odd = (W % 2 == 1) && (H % 2 == 1);
  // Both sizes odd: the patch points are the grid's. Otherwise the grid has the sizes rounded
  // down to even as intervals (a point more than the patch along an even side), and linear
  // resampling carries the sides onto it and the solution back.
  const int nx = odd ? W - 1 : W - W % 2;
  const int ny = odd ? H - 1 : H - H % 2;
  const int GW = nx + 1, GH = ny + 1;
  auto toGrid = [&](const std::vector<double>& side, int m) {
    return odd ? side : resampleLinear(side, m);
  };
  const auto firstRow = toGrid(p.firstRow, GW), lastRow = toGrid(p.lastRow, GW);
  const auto firstColumn = toGrid(p.firstColumn, GH), lastColumn = toGrid(p.lastColumn, GH);
  std::vector<double> u(static_cast<size_t>(GW) * GH, 0.0);
  // Dirichlet sides first as columns, then as rows: the rows' values hold at the corners.
  for (int j = 0; j < GH; ++j) {
    if (p.code[0] == 'D') u[static_cast<size_t>(j) * GW] = firstColumn[j];
    if (p.code[1] == 'D') u[static_cast<size_t>(j) * GW + nx] = lastColumn[j];
  }
  for (int i = 0; i < GW; ++i) {
    if (p.code[2] == 'D') u[i] = firstRow[i];
    if (p.code[3] == 'D') u[static_cast<size_t>(ny) * GW + i] = lastRow[i];
  }
  std::vector<double> gridRhs;
  if (!rhs.empty()) {
    if (odd) {
      gridRhs.assign(rhs.begin(), rhs.begin() + static_cast<size_t>(W) * H);
    } else {
      gridRhs = ResampleGrid(rhs, W, H, GW, GH);
    }
  }
  solveGridPoisson(u, nx, ny, p.code, gridRhs);
  p.solution = odd ? std::move(u) : ResampleGrid(u, GW, GH, W, H);
  return 0;
}

}  // namespace

int32_t solveHarmonicPatch(HarmonicPatch& patch) { return SolvePatch(patch, {}); }

int32_t solvePoissonPatch(HarmonicPatch& patch, std::span<const double> rhs) {
  return SolvePatch(patch, rhs);
}

}  // namespace marlith
