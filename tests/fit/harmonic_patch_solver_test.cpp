#include "fit/harmonic_patch_solver.h"

#include <gtest/gtest.h>

#include <string>

#include "dense_reference.h"
#include "support/test_support.h"

namespace marlith {
namespace {

// The grid's discrete problem (see solveGridPoisson) assembled point by point and solved densely:
// nx^2 dxx u + ny^2 dyy u = nx ny rhs at every point off the Dirichlet sides, a Neumann side
// mirroring its inner neighbour. u holds the Dirichlet values; the rest is overwritten.
std::vector<double> DenseReference(std::vector<double> u, int nx, int ny, const std::string& code,
                                   const std::vector<double>& rhs) {
  const int W = nx + 1, H = ny + 1;
  auto dirichlet = [&](int i, int j) {
    return (i == 0 && code[0] == 'D') || (i == nx && code[1] == 'D') ||
           (j == 0 && code[2] == 'D') || (j == ny && code[3] == 'D');
  };
  test::DenseSystem s(W * H);  // Dirichlet points as rows u = value
  for (int p = 0; p < W * H; ++p) {
    const int i = p % W, j = p / W;
    if (dirichlet(i, j)) {
      s.at(p, p) = 1.0;
      s.b[p] = u[p];
      continue;
    }
    s.b[p] = rhs.empty() ? 0.0 : nx * ny * rhs[p];
    auto add = [&](int ii, int jj, double w) {  // mirrored across a Neumann side
      ii = ii < 0 ? 1 : ii > nx ? nx - 1 : ii;
      jj = jj < 0 ? 1 : jj > ny ? ny - 1 : jj;
      s.at(p, jj * W + ii) += w;
    };
    add(i, j, -2.0 * nx * nx - 2.0 * ny * ny);
    for (int d : {-1, 1}) add(i + d, j, nx * nx), add(i, j + d, ny * ny);
  }
  return s.Solve();
}

// A patch whose four side arrays are sampled from f (x, y in samples).
template <typename F>
HarmonicPatch PatchFrom(int W, int H, const std::string& code, F f) {
  HarmonicPatch p{W, H, {}, {}, {}, {}, {}, code};
  for (int i = 0; i < W; ++i) p.firstRow.push_back(f(i, 0)), p.lastRow.push_back(f(i, H - 1));
  for (int j = 0; j < H; ++j) p.firstColumn.push_back(f(0, j)), p.lastColumn.push_back(f(W - 1, j));
  return p;
}

TEST(SolvePoissonPatch, AgreesWithADirectSolveOnOddPatchesAndIgnoresNeumannArrays) {
  for (const std::string code : {"DDDD", "NNDD", "DDNN"})
    for (auto [W, H] : {std::pair{5, 7}, std::pair{9, 9}, std::pair{11, 5}}) {
      const auto data = test::RandomValues(W * H, W * 13 + H);
      HarmonicPatch p = PatchFrom(W, H, code, [&, w = W](int x, int y) { return data[y * w + x]; });
      // The solver must not read the Neumann arrays.
      if (code[0] == 'N') std::fill(p.firstColumn.begin(), p.firstColumn.end(), 1e3);
      if (code[2] == 'N') std::fill(p.lastRow.begin(), p.lastRow.end(), -1e3);
      const auto rhs = test::RandomValues(W * H, 99, -0.2, 0.2);
      const auto expected = DenseReference(data, W - 1, H - 1, code, rhs);
      solvePoissonPatch(p, rhs);
      EXPECT_LT(test::RelativeDifference(p.solution, expected), 1e-9)
          << code << " " << W << "x" << H;
    }
}

}  // namespace
}  // namespace marlith
