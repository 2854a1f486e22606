#include "fit/harmonic_patch_solver.h"

#include <algorithm>
#include <cassert>
#include <cmath>
#include <numbers>

#include "plane/fftw_plan.h"

namespace marlith {
namespace {

[[maybe_unused]] bool ValidCode(const std::string& code) {
  return code == "DDDD" || code == "NNDD" || code == "DDNN";
}

// The unknowns along one axis of `intervals` intervals. Both sides of an axis share their
// condition in every code we accept. A Dirichlet axis has the inner points as unknowns and is
// diagonalised by the sine transform (DST-I, FFTW_RODFT00); a Neumann axis has every point as
// unknown, the mirror condition u(-1) = u(1) at each end, and is diagonalised by the cosine
// transform (DCT-I, FFTW_REDFT00).
struct Axis {
  bool neumann = false;
  int first = 0;  // first unknown point
  int count = 0;  // number of unknowns
  int intervals = 0;

  // A Neumann axis of one point (a patch one sample wide) has no second difference at all:
  // nothing to transform, and its eigenvalue is 0.
  bool transformed() const { return !(neumann && intervals == 0); }
  fftw_r2r_kind kind() const { return neumann ? FFTW_REDFT00 : FFTW_RODFT00; }
  // Eigenvalue of intervals^2 x (second difference) for mode k:
  // DST-I: -4 n^2 sin^2(pi (k + 1) / 2n); DCT-I: -4 n^2 sin^2(pi k / 2n).
  double eigenvalue(int k) const {
    if (!transformed()) return 0.0;
    const double s = neumann ? std::sin(std::numbers::pi * k / (2.0 * intervals))
                             : std::sin(std::numbers::pi * (k + 1) / (2.0 * intervals));
    return -4.0 * intervals * static_cast<double>(intervals) * s * s;
  }
  // FFTW's DST-I and DCT-I are their own inverses up to this factor (2(N + 1) and 2(N - 1)).
  double norm() const {
    if (!transformed()) return 1.0;
    return neumann ? 2.0 * (count - 1) : 2.0 * (count + 1);
  }
};

Axis MakeAxis(char side, int intervals) {
  Axis a;
  a.intervals = intervals;
  if (side == 'N') {
    a.neumann = true;
    a.first = 0;
    a.count = intervals + 1;
  } else {
    a.first = 1;
    a.count = intervals - 1;
  }
  return a;
}

// The fraction position of point i of m on a line of n points (both ends kept).
inline void LinearPosition(int i, int n, int m, int& j, double& f) {
  if (n == 1 || m == 1) {
    j = 0;
    f = 0.0;
    return;
  }
  const double t = static_cast<double>(i) * (n - 1) / (m - 1);
  j = std::min(static_cast<int>(t), n - 2);
  f = t - j;
}

// in (n values, stride inStride) resampled into out (m values, stride outStride).
void ResampleInto(const double* in, int n, ptrdiff_t inStride, double* out, int m,
                  ptrdiff_t outStride) {
  for (int i = 0; i < m; ++i) {
    int j = 0;
    double f = 0.0;
    LinearPosition(i, n, m, j, f);
    // A point that falls on a sample takes it exactly (so the ends and coinciding points keep
    // their values bit for bit).
    out[i * outStride] =
        f == 0.0 ? in[j * inStride] : (1.0 - f) * in[j * inStride] + f * in[(j + 1) * inStride];
  }
}

// A w x h plane resampled linearly along rows, then along columns, to W x H.
std::vector<double> ResampleGrid(std::span<const double> plane, int w, int h, int W, int H) {
  assert(plane.size() >= static_cast<size_t>(w) * h);
  std::vector<double> rows(static_cast<size_t>(W) * h);
  for (int y = 0; y < h; ++y)
    ResampleInto(plane.data() + static_cast<ptrdiff_t>(y) * w, w, 1,
                 rows.data() + static_cast<ptrdiff_t>(y) * W, W, 1);
  std::vector<double> out(static_cast<size_t>(W) * H);
  for (int x = 0; x < W; ++x) ResampleInto(rows.data() + x, h, W, out.data() + x, H, W);
  return out;
}

}  // namespace

std::vector<double> resampleLinear(std::span<const double> values, int m) {
  assert(!values.empty() && m >= 1);
  std::vector<double> out(m);
  ResampleInto(values.data(), static_cast<int>(values.size()), 1, out.data(), m, 1);
  return out;
}

void solveGridPoisson(std::vector<double>& u, int nx, int ny, const std::string& code,
                      std::span<const double> rhs) {
  assert(ValidCode(code));
  assert(nx >= 0 && ny >= 0);
  const int W = nx + 1;
  assert(u.size() == static_cast<size_t>(W) * (ny + 1));
  assert(rhs.empty() || rhs.size() == u.size());
  const Axis ax = MakeAxis(code[0], nx);
  const Axis ay = MakeAxis(code[2], ny);
  if (ax.count < 1 || ay.count < 1) return;  // every point lies on a Dirichlet side

  // Right-hand side at the unknowns, the known Dirichlet neighbours moved over:
  //   nx^2 (u[i-1] - 2u + u[i+1]) + ny^2 (u[j-1] - 2u + u[j+1]) = nx ny rhs.
  // The grid spacing is hx = 1/nx, hy = 1/ny on the unit square; rhs comes in sample units (the
  // 3 x 3 Laplacian of the data, spacing 1), so it is scaled by 1/(hx hy) = nx ny. On a square
  // grid (nx = ny) that is exactly the unit-square Laplacian of the same data, so a Poisson fill
  // whose right-hand side is the data's own Laplacian gives the data back; on a non-square grid
  // no single factor can do that and nx ny is the geometric mean of the two axes' factors.
  const double wx = static_cast<double>(nx) * nx, wy = static_cast<double>(ny) * ny;
  const double rhsScale = static_cast<double>(nx) * ny;
  const size_t n = static_cast<size_t>(ax.count) * ay.count;
  auto f = AllocateFftwBuffer<double>(n);
  auto at = [&](int i, int j) { return u[static_cast<size_t>(j) * W + i]; };
  for (int b = 0; b < ay.count; ++b) {
    const int j = ay.first + b;
    for (int a = 0; a < ax.count; ++a) {
      const int i = ax.first + a;
      double v = rhs.empty() ? 0.0 : rhsScale * rhs[static_cast<size_t>(j) * W + i];
      if (!ax.neumann) {
        if (i == 1) v -= wx * at(0, j);
        if (i == nx - 1) v -= wx * at(nx, j);
      }
      if (!ay.neumann) {
        if (j == 1) v -= wy * at(i, 0);
        if (j == ny - 1) v -= wy * at(i, ny);
      }
      f[static_cast<size_t>(b) * ax.count + a] = v;
    }
  }

  FftwPlan plan;
  {
    std::lock_guard<std::mutex> lock(FftwPlannerMutex());
    fftw_plan_with_nthreads(1);  // patches are small; threads would cost more than they save
    fftw_plan raw = nullptr;
    if (ax.transformed() && ay.transformed()) {
      raw = fftw_plan_r2r_2d(ay.count, ax.count, f.get(), f.get(), ay.kind(), ax.kind(),
                             FFTW_ESTIMATE);
    } else {
      // One axis is a single point: a 1-D transform along the other (the data is contiguous).
      const Axis& other = ax.transformed() ? ax : ay;
      raw = fftw_plan_r2r_1d(other.count, f.get(), f.get(), other.kind(), FFTW_ESTIMATE);
    }
    plan = AdoptFftwPlan(raw, "trigonometric transform of a patch");
  }
  fftw_execute(plan.get());
  const double scale = 1.0 / (ax.norm() * ay.norm());
  for (int b = 0; b < ay.count; ++b)
    for (int a = 0; a < ax.count; ++a) {
      // Never 0: every accepted code has a Dirichlet axis, whose eigenvalues are all negative.
      const double lambda = ax.eigenvalue(a) + ay.eigenvalue(b);
      f[static_cast<size_t>(b) * ax.count + a] *= scale / lambda;
    }
  fftw_execute(plan.get());
  for (int b = 0; b < ay.count; ++b)
    std::copy_n(f.get() + static_cast<ptrdiff_t>(b) * ax.count, ax.count,
                u.begin() + static_cast<ptrdiff_t>(ay.first + b) * W + ax.first);
}

namespace {

int32_t SolvePatch(HarmonicPatch& p, std::span<const double> rhs) {
  const int W = p.width, H = p.height;
  assert(W >= 1 && H >= 1 && ValidCode(p.code));
  assert(p.firstRow.size() == static_cast<size_t>(W) && p.lastRow.size() == p.firstRow.size());
  assert(p.firstColumn.size() == static_cast<size_t>(H) &&
         p.lastColumn.size() == p.firstColumn.size());
  assert(rhs.empty() || rhs.size() >= static_cast<size_t>(W) * H);
  const bool odd = (W % 2 == 1) && (H % 2 == 1);
  // Both sizes odd: the patch points are the grid's. Otherwise each axis has its size rounded
  // down to even as intervals (so an even axis gets one point more than the patch, an odd one
  // keeps its points), and linear resampling carries the sides and the right-hand side onto the
  // grid and the solution back. Linear resampling keeps the end points, so the Dirichlet
  // values at the patch's corners stay exact, and it reproduces linear data exactly.
  const int nx = odd ? W - 1 : W - W % 2;
  const int ny = odd ? H - 1 : H - H % 2;
  const int GW = nx + 1, GH = ny + 1;
  auto toGrid = [&](const std::vector<double>& side, int m) {
    return odd ? side : resampleLinear(side, m);
  };
  std::vector<double> u(static_cast<size_t>(GW) * GH, 0.0);
  // Dirichlet sides first as columns, then as rows: the rows' values hold at the corners.
  if (p.code[0] == 'D') {
    const auto firstColumn = toGrid(p.firstColumn, GH), lastColumn = toGrid(p.lastColumn, GH);
    for (int j = 0; j < GH; ++j) {
      u[static_cast<size_t>(j) * GW] = firstColumn[j];
      u[static_cast<size_t>(j) * GW + nx] = lastColumn[j];
    }
  }
  if (p.code[2] == 'D') {
    const auto firstRow = toGrid(p.firstRow, GW), lastRow = toGrid(p.lastRow, GW);
    std::copy(firstRow.begin(), firstRow.end(), u.begin());
    std::copy(lastRow.begin(), lastRow.end(), u.begin() + static_cast<ptrdiff_t>(ny) * GW);
  }
  std::vector<double> gridRhs;
  if (!rhs.empty())
    gridRhs = odd ? std::vector<double>(rhs.begin(), rhs.begin() + static_cast<ptrdiff_t>(W) * H)
                  : ResampleGrid(rhs, W, H, GW, GH);
  solveGridPoisson(u, nx, ny, p.code, gridRhs);
  p.solution = odd ? std::move(u) : ResampleGrid(u, GW, GH, W, H);
  return 0;
}

}  // namespace

int32_t solveHarmonicPatch(HarmonicPatch& patch) { return SolvePatch(patch, {}); }

int32_t solvePoissonPatch(HarmonicPatch& patch, std::span<const double> rhs) {
  assert(rhs.size() >= static_cast<size_t>(patch.width) * patch.height);
  return SolvePatch(patch, rhs);
}

}  // namespace marlith
