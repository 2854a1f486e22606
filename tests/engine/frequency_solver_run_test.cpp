#include "engine/frequency_solver_run.h"

#include <gtest/gtest.h>

#include <cmath>

#include "engine/engine_driver.h"
#include "marlith/error.hpp"
#include "support/test_support.h"

namespace marlith {
namespace {

TEST(PrepareWorkingPlanes, AnyNonZeroBoundaryTypeAddsThreeKernelSizesOfMarginEachSide) {
  // A 100 x 75 image with a 9 x 9 bordered kernel: 100 x 76 even, plus 54 each way.
  const auto image = test::RandomValues(2 * 100 * 75, 1, 0.0, 1.0);
  const std::vector<double> kernel(81, 1.0 / 81);
  for (int32_t boundary : {1, -1, 0}) {
    DeconvRequest r{image.data(), nullptr, kernel.data(), 100, 75, 2, 9, 9, 0.0005, 20, boundary};
    const WorkingPlanes w = PrepareWorkingPlanes(r);
    const int pad = boundary ? 27 : 0;
    ASSERT_EQ(w.width * 1000 + w.height, (100 + 2 * pad) * 1000 + 76 + 2 * pad);
    ASSERT_EQ(w.planes.size(), 2u * w.width * w.height);
    // The image sits in the middle of each channel, offset by the margins.
    for (int c = 0; c < 2; ++c)
      for (int i = 0; i < 100 * 75; ++i)
        ASSERT_EQ(w.planes[(c * w.height + i / 100 + pad) * w.width + i % 100 + pad],
                  image[c * 7500 + i]);
  }
  DeconvRequest tooLarge{image.data(), nullptr, kernel.data(), 8, 5, 1, 7, 7, 0.0005, 20, 0};
  EXPECT_THROW(PrepareWorkingPlanes(tooLarge), Error);
}

}  // namespace
}  // namespace marlith
