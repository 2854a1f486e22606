#include "plane/plane_padding.h"

#include <gtest/gtest.h>

#include <cmath>
#include <numeric>

namespace marlith {
namespace {

std::vector<double> Ramp(int n) {
  std::vector<double> v(n);
  std::iota(v.begin(), v.end(), 1.0);
  return v;
}

// Position of the first non-zero value of a W-wide plane as (column, row).
std::pair<int, int> FirstNonZero(const std::vector<double>& plane, int W) {
  for (size_t i = 0; i < plane.size(); ++i)
    if (plane[i] != 0.0) return {static_cast<int>(i % W), static_cast<int>(i / W)};
  return {-1, -1};
}

TEST(PadCenteredUp, PutsOddRemainderLeftAndTopAndDownPutsItRightAndBottom) {
  const auto src = Ramp(9);
  const auto up = PadCenteredUp(std::span<const double>(src), 3, 3, 8, 8);
  const auto down = PadCenteredDown(std::span<const double>(src), 3, 3, 8, 8);
  EXPECT_EQ(FirstNonZero(up, 8), std::make_pair(3, 3));
  EXPECT_EQ(FirstNonZero(down, 8), std::make_pair(2, 2));
  // Every source value lands once, in order, and the rest stays zero.
  for (int y = 0; y < 3; ++y)
    for (int x = 0; x < 3; ++x) {
      EXPECT_EQ(up[(y + 3) * 8 + x + 3], src[y * 3 + x]);
      EXPECT_EQ(down[(y + 2) * 8 + x + 2], src[y * 3 + x]);
    }
  EXPECT_DOUBLE_EQ(std::accumulate(up.begin(), up.end(), 0.0), 45.0);
}

TEST(CropKernelToSupport, KeepsTheBoxOfTapsStrictlyAboveOne255thOfThePeak) {
  // 7 x 5 kernel, peak 255 at (3, 2); a tap equal to the threshold (1.0) at (0, 0) is dropped,
  // taps just above it at (1, 4) and (5, 1) widen the box.
  std::vector<double> k(35, 0.5);
  k[0] = 1.0;
  k[2 * 7 + 3] = 255.0;
  k[4 * 7 + 1] = 1.0001;
  k[1 * 7 + 5] = 1.5;
  const CroppedKernel c = CropKernelToSupport(k, 7, 5);
  EXPECT_EQ(c.width, 5);   // columns 1..5
  EXPECT_EQ(c.height, 4);  // rows 1..4
  EXPECT_EQ(c.values[(2 - 1) * 5 + (3 - 1)], 255.0);
  EXPECT_EQ(c.values[(4 - 1) * 5 + 0], 1.0001);
  EXPECT_EQ(c.values[0], 0.5);  // not renormalised
}

TEST(ExtendToEvenSize, RepeatsTheLastColumnAndRowOfOddPlanesPerChannel) {
  const std::vector<double> src = Ramp(2 * 15);  // two 5 x 3 channels
  EvenSizeWork work;
  work.input = src;
  work.width = 5;
  work.height = 3;
  work.channels = 2;
  ExtendToEvenSize(work);
  ASSERT_EQ(work.workWidth, 6);
  ASSERT_EQ(work.workHeight, 4);
  ASSERT_EQ(work.planes.size(), 2u * 24);
  for (int c = 0; c < 2; ++c)
    for (int y = 0; y < 4; ++y)
      for (int x = 0; x < 6; ++x) {
        const int sy = std::min(y, 2), sx = std::min(x, 4);
        EXPECT_EQ(work.planes[c * 24 + y * 6 + x], src[c * 15 + sy * 5 + sx]);
      }
}

TEST(CropCenteredBack, UndoesACentredPaddingForEveryChannel) {
  const std::vector<double> src = Ramp(2 * 12);  // two 4 x 3 channels
  std::vector<double> padded;
  for (int c = 0; c < 2; ++c) {
    auto p = PadCenteredDown(std::span<const double>(src).subspan(c * 12, 12), 4, 3, 9, 8);
    padded.insert(padded.end(), p.begin(), p.end());
  }
  std::vector<double> out(24, -1.0);
  CropCenteredBack(padded, 9, 8, 4, 3, 2, out);
  EXPECT_EQ(out, src);
}

}  // namespace
}  // namespace marlith
