#include "plane/plane_padding.h"

#include <gtest/gtest.h>

#include <numeric>

namespace marlith {
namespace {

std::vector<double> Ramp(int n) {
  std::vector<double> v(n);
  std::iota(v.begin(), v.end(), 1.0);
  return v;
}

TEST(PadCenteredUp, PutsOddRemainderLeftAndTopDownPutsItRightAndBottomAndCropUndoesIt) {
  // Two 3 x 3 channels into 8 x 8 (up: from (3, 3), down: from (2, 2)), cropped back.
  const auto src = Ramp(18);
  std::vector<double> down;
  for (int c = 0; c < 2; ++c) {
    const auto channel = std::span<const double>(src).subspan(c * 9, 9);
    const auto up = PadCenteredUp(channel, 3, 3, 8, 8);
    const auto p = PadCenteredDown(channel, 3, 3, 8, 8);
    for (int i = 0; i < 64; ++i) {
      const int x = i % 8, y = i / 8;
      EXPECT_EQ(up[i], x >= 3 && x < 6 && y >= 3 && y < 6 ? channel[(y - 3) * 3 + x - 3] : 0.0);
      EXPECT_EQ(p[i], x >= 2 && x < 5 && y >= 2 && y < 5 ? channel[(y - 2) * 3 + x - 2] : 0.0);
    }
    down.insert(down.end(), p.begin(), p.end());
  }
  std::vector<double> out(18, -1.0);
  CropCenteredBack(down, 8, 8, 3, 3, 2, out);
  EXPECT_EQ(out, src);
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
  EXPECT_EQ(c.width * 10 + c.height, 54);  // columns 1..5, rows 1..4
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
  ASSERT_EQ(work.workWidth * 10 + work.workHeight, 64);
  ASSERT_EQ(work.planes.size(), 2u * 24);
  for (int i = 0; i < 48; ++i)
    EXPECT_EQ(work.planes[i], src[i / 24 * 15 + std::min(i % 24 / 6, 2) * 5 + std::min(i % 6, 4)]);
}

}  // namespace
}  // namespace marlith
