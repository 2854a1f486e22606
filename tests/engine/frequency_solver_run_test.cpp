#include "engine/frequency_solver_run.h"

#include <gtest/gtest.h>

#include <cmath>

#include "marlith/error.hpp"

namespace marlith {
namespace {

std::vector<double> Smooth(int w, int h, int channels) {
  std::vector<double> v(static_cast<size_t>(w) * h * channels);
  for (int c = 0; c < channels; ++c)
    for (int y = 0; y < h; ++y)
      for (int x = 0; x < w; ++x)
        v[(c * h + y) * w + x] = 0.5 + 0.3 * std::sin(0.1 * x + 0.07 * y + c);
  return v;
}

TEST(PrepareWorkingPlanes, AnyNonZeroBoundaryTypeAddsThreeKernelSizesOfMarginEachSide) {
  // A 100 x 75 image with a 9 x 9 bordered kernel: 100 x 76 even, plus 54 each way.
  const auto image = Smooth(100, 75, 2);
  const std::vector<double> kernel(81, 1.0 / 81);
  for (int32_t boundary : {1, 2, -1}) {
    DeconvRequest r{image.data(), nullptr, kernel.data(), 100, 75, 2, 9, 9, 0.0005, 20, boundary};
    const WorkingPlanes w = PrepareWorkingPlanes(r);
    ASSERT_EQ(w.width, 154);
    ASSERT_EQ(w.height, 130);
    ASSERT_EQ(w.planes.size(), 2u * 154 * 130);
    // The image sits in the middle of each channel, offset by the margins (27, 27).
    for (int c = 0; c < 2; ++c)
      for (int y = 0; y < 75; ++y)
        for (int x = 0; x < 100; ++x)
          ASSERT_EQ(w.planes[(c * 130 + y + 27) * 154 + x + 27], image[(c * 75 + y) * 100 + x]);
  }
  DeconvRequest periodic{image.data(), nullptr, kernel.data(), 100, 75, 2, 9, 9, 0.0005, 20, 0};
  const WorkingPlanes w = PrepareWorkingPlanes(periodic);
  EXPECT_EQ(w.width, 100);
  EXPECT_EQ(w.height, 76);
}

TEST(PrepareWorkingPlanes, RefusesAKernelLargerThanTheImage) {
  const auto image = Smooth(8, 5, 1);
  const std::vector<double> kernel(7 * 7, 1.0 / 49);
  for (int32_t boundary : {0, 1}) {
    DeconvRequest r{image.data(), nullptr, kernel.data(), 8, 5, 1, 7, 7, 0.0005, 20, boundary};
    EXPECT_THROW(PrepareWorkingPlanes(r), Error);
  }
}

}  // namespace
}  // namespace marlith
