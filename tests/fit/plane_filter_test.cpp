#include "fit/plane_filter.h"

#include <gtest/gtest.h>

#include <random>
#include <vector>

#include "support/test_support.h"

namespace marlith {
namespace {

// Brute force from the definition: taps outside the plane by mode (1 zero, 2 clamp, 3 period
// size - 1); convolution flips the kernel.
double Reference(const std::vector<double>& in, int W, int H, const std::vector<double>& k, int kw,
                 int kh, int mode, int orientation, int R, int C) {
  double sum = 0.0;
  for (int j = 0; j < kh; ++j)
    for (int i = 0; i < kw; ++i) {
      int y = R + j - (kh - 1) / 2, x = C + i - (kw - 1) / 2;
      const double tap = orientation == 1 ? k[(kh - 1 - j) * kw + (kw - 1 - i)] : k[j * kw + i];
      auto map = [mode](int v, int n) {
        if (v >= 0 && v < n) return v;
        if (mode == 2) return v < 0 ? 0 : n - 1;
        if (mode == 3) return v < 0 ? v + n - 1 : v - (n - 1);
        return -1;
      };
      x = map(x, W);
      y = map(y, H);
      if (x < 0 || y < 0 || x >= W || y >= H) continue;
      sum += tap * in[y * W + x];
    }
  return sum;
}

TEST(FilterPlane, MatchesTheDefinitionInEveryModeAndOrientation) {
  const int W = 9, H = 6;
  const auto in = test::RandomValues(W * H, 1);
  for (auto [kw, kh] : {std::pair{3, 3}, std::pair{4, 2}, std::pair{5, 3}, std::pair{1, 4}}) {
    const auto k = test::RandomValues(kw * kh, kw * 10 + kh);
    for (int mode : {1, 2, 3})
      for (int orientation : {1, 2}) {
        std::vector<double> out(W * H);
        filterPlane({in, out, W, H, 2.0, k, kw, kh, mode, orientation});
        for (int R = 0; R < H; ++R)
          for (int C = 0; C < W; ++C)
            ASSERT_NEAR(out[R * W + C],
                        2.0 * Reference(in, W, H, k, kw, kh, mode, orientation, R, C), 1e-13)
                << kw << "x" << kh << " mode " << mode << " orientation " << orientation;
      }
  }
}

TEST(FilterPlane, ScaleGuardUnitKernelInPlaceAndUnknownOrientation) {
  const int W = 5, H = 4;
  const auto in = test::RandomValues(W * H, 2);
  const std::vector<double> one = {1.0};
  for (double scale : {0.0, 1e-11, 1e10, -1e12}) {
    std::vector<double> out(W * H);
    filterPlane({in, out, W, H, scale, one, 1, 1, 2, 2});
    EXPECT_EQ(out, in) << scale;  // taken as 1
  }
  std::vector<double> out(W * H);
  filterPlane({in, out, W, H, 3.0, one, 1, 1, 2, 2});
  for (int i = 0; i < W * H; ++i) EXPECT_DOUBLE_EQ(out[i], 3.0 * in[i]);

  const auto k = test::RandomValues(9, 3);
  std::vector<double> separate(W * H), inPlace = in;
  filterPlane({in, separate, W, H, 1.0, k, 3, 3, 3, 1});
  filterPlane({inPlace, inPlace, W, H, 1.0, k, 3, 3, 3, 1});
  EXPECT_EQ(inPlace, separate);

  filterPlane({in, out, W, H, 1.0, k, 3, 3, 2, 7});
  for (double v : out) EXPECT_EQ(v, 0.0);
}

TEST(FilterPlane, WrapModeReadsWithAPeriodOfSizeMinusOne) {
  // A row 0..4: a kernel picking the left neighbour reads column 3 at column 0, and the right
  // neighbour reads column 1 at column 4.
  const std::vector<double> row = {0, 1, 2, 3, 4};
  std::vector<double> out(5);
  filterPlane({row, out, 5, 1, 1.0, std::vector<double>{1, 0, 0}, 3, 1, 3, 2});
  EXPECT_EQ(out[0], 3.0);
  filterPlane({row, out, 5, 1, 1.0, std::vector<double>{0, 0, 1}, 3, 1, 3, 2});
  EXPECT_EQ(out[4], 1.0);
}

TEST(FilterPlane, ZeroModeBoxOfOnesCountsTheTapsInside) {
  const std::vector<double> ones(6 * 5, 1.0), box(9, 1.0);
  std::vector<double> out(30);
  filterPlane({ones, out, 6, 5, 1.0, box, 3, 3, 1, 2});
  EXPECT_EQ(out[0], 4.0);          // corner
  EXPECT_EQ(out[2], 6.0);          // edge
  EXPECT_EQ(out[2 * 6 + 2], 9.0);  // inside
}

}  // namespace
}  // namespace marlith
