#include "fit/plane_filter.h"

#include <gtest/gtest.h>

#include <vector>

#include "support/test_support.h"

namespace marlith {
namespace {

// Brute force from the definition: taps outside the plane by mode (1 zero, 2 clamp, 3 period
// size - 1, a tap still outside after one shift left out); convolution (orientation 1) turns
// the kernel by 180 degrees; other orientations give zero.
double Reference(const std::vector<double>& in, int W, int H, const std::vector<double>& k, int kw,
                 int kh, int mode, int orientation, int R, int C) {
  auto map = [mode](int v, int n) {
    if (v >= 0 && v < n) return v;
    if (mode == 2) return v < 0 ? 0 : n - 1;
    if (mode == 3) v = v < 0 ? v + n - 1 : v - (n - 1);
    return v >= 0 && v < n ? v : -1;
  };
  double sum = 0.0;
  for (int j = 0; j < kh; ++j)
    for (int i = 0; i < kw; ++i) {
      const int y = map(R + j - (kh - 1) / 2, H), x = map(C + i - (kw - 1) / 2, W);
      const double tap = orientation == 1 ? k[(kh - 1 - j) * kw + (kw - 1 - i)] : k[j * kw + i];
      if (x >= 0 && y >= 0 && orientation <= 2) sum += tap * in[y * W + x];
    }
  return sum;
}

TEST(FilterPlane, MatchesTheDefinitionInEveryModeOrientationAndScale) {
  const int W = 9, H = 6;
  const auto in = test::RandomValues(W * H, 1);
  for (auto [kw, kh] :
       {std::pair{3, 3}, std::pair{4, 2}, std::pair{5, 3}, std::pair{1, 4}, std::pair{13, 9}}) {
    const auto k = test::RandomValues(kw * kh, kw * 10 + kh);
    for (int mode : {1, 2, 3})
      for (int orientation : {1, 2, 7})
        for (double scale : {2.0, 1e-11, -1e12}) {  // the last two count as 1
          std::vector<double> out = in;             // in place
          filterPlane({out, out, W, H, scale, k, kw, kh, mode, orientation});
          for (int i = 0; i < W * H; ++i)
            ASSERT_NEAR(out[i],
                        (scale == 2.0 ? 2.0 : 1.0) *
                            Reference(in, W, H, k, kw, kh, mode, orientation, i / W, i % W),
                        1e-13)
                << kw << "x" << kh << " mode " << mode << " orientation " << orientation;
        }
  }
}

}  // namespace
}  // namespace marlith
