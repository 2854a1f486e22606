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

// How neighbours beyond an end of an axis are read.
enum class Ends { kClamped, kMirrored, kPeriodic };

// The sample an axis of n samples reads for neighbour i (mirrored about the half-sample point:
// -1 -> 0, -2 -> 1).
inline int EndIndex(int i, int n, Ends ends) {
  if (ends == Ends::kPeriodic) return ((i % n) + n) % n;
  if (ends == Ends::kMirrored) return i < 0 ? -i - 1 : i >= n ? 2 * n - 1 - i : i;
  return std::clamp(i, 0, n - 1);
}

// (B + diag(w)) x = w d, B the 5 x 5 biharmonic stencil (20 at the centre, -8 on the four
// neighbours, 2 on the diagonals, 1 two steps out), neighbours read beyond the W x H plane's
// ends as asked per axis (clamped unless said).
inline std::vector<double> DenseThinPlate(const std::vector<double>& d,
                                          const std::vector<double>& w, int W, int H,
                                          Ends endsX = Ends::kClamped,
                                          Ends endsY = Ends::kClamped) {
  static const int stencil[25] = {0,  0, 1, 0, 0,  0, 2, -8, 2, 0, 1, -8, 20,
                                  -8, 1, 0, 2, -8, 2, 0, 0,  0, 1, 0, 0};
  DenseSystem s(W * H);
  for (int r = 0; r < H; ++r)
    for (int c = 0; c < W; ++c) {
      const int row = r * W + c;
      for (int j = 0; j < 25; ++j)
        s.at(row, EndIndex(r + j / 5 - 2, H, endsY) * W + EndIndex(c + j % 5 - 2, W, endsX)) +=
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
