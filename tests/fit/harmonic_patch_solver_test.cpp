#include "fit/harmonic_patch_solver.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <cmath>
#include <random>
#include <string>

#include "support/test_support.h"

namespace marlith {
namespace {

// The same discrete problem assembled point by point and solved densely (Gaussian elimination
// with partial pivoting): nx^2 dxx u + ny^2 dyy u = nx ny rhs at every point off the Dirichlet
// sides, a Neumann side mirroring its inner neighbour.
std::vector<double> DenseReference(std::vector<double> u, int nx, int ny, const std::string& code,
                                   const std::vector<double>& rhs) {
  const int W = nx + 1, H = ny + 1;
  auto dirichlet = [&](int i, int j) {
    return (i == 0 && code[0] == 'D') || (i == nx && code[1] == 'D') ||
           (j == 0 && code[2] == 'D') || (j == ny && code[3] == 'D');
  };
  std::vector<int> index(W * H, -1);
  int n = 0;
  for (int j = 0; j < H; ++j)
    for (int i = 0; i < W; ++i)
      if (!dirichlet(i, j)) index[j * W + i] = n++;
  std::vector<std::vector<double>> a(n, std::vector<double>(n + 1, 0.0));
  const double wx = nx * nx, wy = ny * ny;
  for (int j = 0; j < H; ++j)
    for (int i = 0; i < W; ++i) {
      const int row = index[j * W + i];
      if (row < 0) continue;
      a[row][n] = rhs.empty() ? 0.0 : nx * ny * rhs[j * W + i];
      auto add = [&](int ii, int jj, double w) {
        if (ii < 0) ii = 1;  // mirrored across a Neumann side
        if (ii > nx) ii = nx - 1;
        if (jj < 0) jj = 1;
        if (jj > ny) jj = ny - 1;
        const int col = index[jj * W + ii];
        if (col < 0)
          a[row][n] -= w * u[jj * W + ii];
        else
          a[row][col] += w;
      };
      add(i, j, -2 * wx - 2 * wy);
      add(i - 1, j, wx);
      add(i + 1, j, wx);
      add(i, j - 1, wy);
      add(i, j + 1, wy);
    }
  for (int c = 0; c < n; ++c) {
    int p = c;
    for (int r = c + 1; r < n; ++r)
      if (std::fabs(a[r][c]) > std::fabs(a[p][c])) p = r;
    std::swap(a[c], a[p]);
    for (int r = 0; r < n; ++r) {
      if (r == c) continue;
      const double f = a[r][c] / a[c][c];
      for (int k = c; k <= n; ++k) a[r][k] -= f * a[c][k];
    }
  }
  for (int j = 0; j < H; ++j)
    for (int i = 0; i < W; ++i)
      if (index[j * W + i] >= 0)
        u[j * W + i] = a[index[j * W + i]][n] / a[index[j * W + i]][index[j * W + i]];
  return u;
}

TEST(SolveGridPoisson, AgreesWithADirectSolveOfTheSameDiscreteProblem) {
  for (const std::string code : {"DDDD", "NNDD", "DDNN"})
    for (auto [nx, ny] : {std::pair{4, 6}, std::pair{7, 5}, std::pair{8, 8}, std::pair{11, 9}})
      for (bool poisson : {false, true}) {
        const int W = nx + 1, H = ny + 1;
        std::vector<double> u =
            test::RandomValues(W * H, nx * 31 + ny);  // sides hold the Dirichlet values
        for (int j = 1; j < ny; ++j)
          for (int i = 1; i < nx; ++i) u[j * W + i] = 0.0;
        const std::vector<double> rhs =
            poisson ? test::RandomValues(W * H, 7) : std::vector<double>{};
        const auto expected = DenseReference(u, nx, ny, code, rhs);
        solveGridPoisson(u, nx, ny, code, rhs);
        double diff = 0.0, scale = 0.0;
        for (int k = 0; k < W * H; ++k) {
          diff = std::max(diff, std::fabs(u[k] - expected[k]));
          scale = std::max(scale, std::fabs(expected[k]));
        }
        EXPECT_LT(diff, 1e-9 * scale) << code << " " << nx << "x" << ny << " poisson " << poisson;
      }
}

// A patch whose four side arrays are sampled from f (x, y in samples).
template <typename F>
HarmonicPatch PatchFrom(int W, int H, const std::string& code, F f) {
  HarmonicPatch p;
  p.width = W;
  p.height = H;
  p.code = code;
  for (int i = 0; i < W; ++i) {
    p.firstRow.push_back(f(i, 0));
    p.lastRow.push_back(f(i, H - 1));
  }
  for (int j = 0; j < H; ++j) {
    p.firstColumn.push_back(f(0, j));
    p.lastColumn.push_back(f(W - 1, j));
  }
  return p;
}

TEST(SolvePoissonPatch, AgreesWithADirectSolveOnOddPatchesAndIgnoresNeumannArrays) {
  for (const std::string code : {"DDDD", "NNDD", "DDNN"})
    for (auto [W, H] : {std::pair{5, 7}, std::pair{9, 9}, std::pair{11, 5}}) {
      const auto data = test::RandomValues(W * H, W * 13 + H);
      // Structured bindings cannot be captured before C++20 compilers catch up (clang 14).
      auto f = [&data, w = W](int x, int y) { return data[y * w + x]; };
      HarmonicPatch p = PatchFrom(W, H, code, f);
      // The reference sees the Dirichlet sides only; the solver must not read Neumann arrays.
      std::vector<double> sides(W * H, 0.0);
      for (int j = 0; j < H; ++j)
        for (int i = 0; i < W; ++i) {
          const bool columnSide = (i == 0 || i == W - 1) && code[0] == 'D';
          const bool rowSide = (j == 0 || j == H - 1) && code[2] == 'D';
          if (columnSide || rowSide) sides[j * W + i] = f(i, j);
        }
      if (code[0] == 'N') std::fill(p.firstColumn.begin(), p.firstColumn.end(), 1e3);
      if (code[2] == 'N') std::fill(p.lastRow.begin(), p.lastRow.end(), -1e3);
      const auto rhs = test::RandomValues(W * H, 99, -0.2, 0.2);
      const auto expected = DenseReference(sides, W - 1, H - 1, code, rhs);
      solvePoissonPatch(p, rhs);
      ASSERT_EQ(p.solution.size(), expected.size());
      double diff = 0.0, scale = 0.0;
      for (size_t k = 0; k < expected.size(); ++k) {
        diff = std::max(diff, std::fabs(p.solution[k] - expected[k]));
        scale = std::max(scale, std::fabs(expected[k]));
      }
      EXPECT_LT(diff, 1e-9 * scale) << code << " " << W << "x" << H;
    }
}

TEST(SolvePoissonPatch, GivesBackDataFromItsOwnLaplacianOnASquareGrid) {
  // On a square grid the right-hand side in sample units, scaled by nx ny, is the unit-square
  // Laplacian: quadratic data, whose 3 x 3 Laplacian is exact, comes back from its sides. The
  // 3 x 3 Laplacian of a x^2 + b y^2 + c x y is 2a + 2b everywhere.
  const int N = 9;
  const double a = 0.004, b = -0.003, c = 0.002;
  auto q = [&](double x, double y) { return 0.5 + a * x * x + b * y * y + c * x * y; };
  HarmonicPatch p = PatchFrom(N, N, "DDDD", q);
  solvePoissonPatch(p, std::vector<double>(N * N, 2 * a + 2 * b));
  for (int j = 0; j < N; ++j)
    for (int i = 0; i < N; ++i) EXPECT_NEAR(p.solution[j * N + i], q(i, j), 1e-12) << i << "," << j;
  // Neumann sides: data varying along the Dirichlet axis only has a zero normal derivative
  // there, so it comes back too.
  auto rows = [&](double, double y) { return 0.2 + a * y * y; };
  HarmonicPatch n1 = PatchFrom(N, N, "NNDD", rows);
  solvePoissonPatch(n1, std::vector<double>(N * N, 2 * a));
  auto columns = [&](double x, double) { return 0.2 + b * x * x; };
  HarmonicPatch n2 = PatchFrom(N, N, "DDNN", columns);
  solvePoissonPatch(n2, std::vector<double>(N * N, 2 * b));
  for (int j = 0; j < N; ++j)
    for (int i = 0; i < N; ++i) {
      EXPECT_NEAR(n1.solution[j * N + i], rows(i, j), 1e-12) << i << "," << j;
      EXPECT_NEAR(n2.solution[j * N + i], columns(i, j), 1e-12) << i << "," << j;
    }
}

TEST(SolveHarmonicPatch, ASingleColumnWithNeumannSidesIsAStraightLine) {
  // One sample wide there is no difference across the columns: the fill is the 1-D harmonic
  // function between the first and last rows.
  HarmonicPatch p = PatchFrom(1, 5, "NNDD", [](int, int y) { return y == 0 ? 2.0 : -6.0; });
  solveHarmonicPatch(p);
  const double expected[] = {2.0, 0.0, -2.0, -4.0, -6.0};
  ASSERT_EQ(p.solution.size(), 5u);
  for (int j = 0; j < 5; ++j) EXPECT_NEAR(p.solution[j], expected[j], 1e-12) << j;
}

TEST(SolveHarmonicPatch, ReproducesBilinearDataOnOddAndEvenPatches) {
  // u = a + b x + c y + d x y is discrete-harmonic for any spacing: the fill reproduces it
  // from its sides, also through the resampling of even sizes.
  for (auto [W, H] : {std::pair{9, 7}, std::pair{10, 7}, std::pair{8, 12}}) {
    auto f = [](double x, double y) { return 0.3 + 0.05 * x - 0.02 * y + 0.004 * x * y; };
    HarmonicPatch p = PatchFrom(W, H, HarmonicPatch{}.code, f);
    solveHarmonicPatch(p);
    ASSERT_EQ(p.solution.size(), static_cast<size_t>(W * H));
    for (int j = 0; j < H; ++j)
      for (int i = 0; i < W; ++i)
        EXPECT_NEAR(p.solution[j * W + i], f(i, j), 1e-12) << W << "x" << H;
  }
}

}  // namespace
}  // namespace marlith
