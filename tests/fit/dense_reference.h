// Dense references for the fit tests: systems assembled entry by entry from the definitions
// and solved by wmlMath's Gauss-Jordan elimination (tested on its own in tests/wmlMath).
#pragma once

#include <algorithm>
#include <vector>

#include "wmlMath/WmlLinearSystem.h"

namespace marlith::test {

struct DenseSystem {
  explicit DenseSystem(int size) : n(size), a(size_t(size) * size, 0.0), b(size, 0.0) {}
  double& at(int row, int column) { return a[size_t(row) * n + column]; }
  std::vector<double> Solve() const {
    std::vector<double> x(n);
    Wml::LinearSystemd::Solve(Wml::GMatrixd(n, n, a.data()), b.data(), x.data());
    return x;
  }
  int n;
  std::vector<double> a, b;
};

// (B + diag(w)) x = w d, B the 5 x 5 biharmonic stencil (20 at the centre, -8 on the four
// neighbours, 2 on the diagonals, 1 two steps out), neighbours clamped into the W x H plane.
inline std::vector<double> DenseThinPlate(const std::vector<double>& d,
                                          const std::vector<double>& w, int W, int H) {
  static const int stencil[25] = {0,  0, 1, 0, 0,  0, 2, -8, 2, 0, 1, -8, 20,
                                  -8, 1, 0, 2, -8, 2, 0, 0,  0, 1, 0, 0};
  DenseSystem s(W * H);
  for (int r = 0; r < H; ++r)
    for (int c = 0; c < W; ++c) {
      const int row = r * W + c;
      for (int j = 0; j < 25; ++j)
        s.at(row, std::clamp(r + j / 5 - 2, 0, H - 1) * W + std::clamp(c + j % 5 - 2, 0, W - 1)) +=
            stencil[j];
      s.at(row, row) += w[row];
      s.b[row] = w[row] * d[row];
    }
  return s.Solve();
}

// max |a - b| / max |b|
inline double RelativeDifference(const std::vector<double>& a, const std::vector<double>& b) {
  double diff = 0.0, scale = 0.0;
  for (size_t i = 0; i < b.size(); ++i) {
    diff = std::max(diff, std::abs(a[i] - b[i]));
    scale = std::max(scale, std::abs(b[i]));
  }
  return diff / scale;
}

}  // namespace marlith::test
