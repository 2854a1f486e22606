#include "engine/engine_driver.h"

#include <gtest/gtest.h>

#include <cmath>
#include <limits>
#include <numeric>

#include "marlith/error.hpp"

namespace marlith {
namespace {

// The recognised motion blur on the 0..255 scale and its 20 x 7 correction, written out from
// the kernel tables as published with the tool.
const std::vector<double> kReference = {
    0,  0,   0,   0,   0,   0,   0,   0,   0,   0,   0,   0,   0,   0,   0,   0,   0,   0,   23,
    0,  0,   0,   0,   0,   0,   0,   0,   0,   0,   0,   0,   0,   0,   0,   0,   18,  137, 27,
    0,  0,   0,   0,   0,   0,   0,   0,   0,   0,   0,   0,   0,   0,   23,  155, 123, 0,   0,
    0,  0,   0,   0,   0,   0,   0,   0,   0,   0,   0,   0,   59,  164, 159, 0,   0,   0,   0,
    0,  0,   0,   0,   0,   0,   0,   0,   0,   55,  164, 200, 155, 0,   0,   0,   0,   0,   0,
    51, 32,  0,   0,   73,  110, 178, 223, 218, 164, 59,  0,   0,   0,   0,   0,   0,   0,   0,
    0,  255, 237, 218, 182, 123, 0,   0,   0,   0,   0,   0,   0,   0,   0,   0,   0,   0,   0};

double Correction(int x, int y) {
  static const std::vector<std::vector<double>> rows = {
      {0.0057},
      {0.0044, 0.0335, 0.0067},
      {0.0057, 0.0379, 0.0301, 0, 0},
      {0.0144, 0.0402, 0.0389, 0.001, 0, 0, 0},
      {0.0134, 0.0402, 0.0489, 0.0379, 0, 0, 0, 0, 0, 0},
      {0,      0.0124, 0.0077, 0.0077, 0.0111, 0.0178, 0.0268, 0.0435, 0.0546, 0.0533,
       0.0402, 0.0144, 0,      0,      0,      0,      0,      0,      0,      0},
      {0.0245, 0.0657, 0.0623, 0.0579, 0.0533, 0.0446, 0.0301, 0.0134, 0, 0,
       0,      0,      0,      0,      0,      0,      0,      0,      0, 0}};
  const auto& row = rows[y];
  const int start = 20 - static_cast<int>(row.size());  // rows 0-4 are right-aligned
  return x < start ? 0.0 : row[x - start];
}

// The prepared kernel's interior (its one-sample zero border removed); checks the border.
std::vector<double> Interior(const PreparedKernel& k) {
  std::vector<double> in;
  for (int y = 0; y < k.height; ++y)
    for (int x = 0; x < k.width; ++x) {
      const double v = k.values[y * k.width + x];
      if (y == 0 || x == 0 || y == k.height - 1 || x == k.width - 1) {
        EXPECT_EQ(v, 0.0) << "border at " << x << "," << y;
      } else {
        in.push_back(v);
      }
    }
  return in;
}

TEST(PrepareKernel, BlendsTheReferenceKernelWithTwoPartsCorrection) {
  // Any brightness matches; r = 3585 / (the kernel's sum) = 1 / scale weighs the correction.
  for (double scale : {1.0 / 3585.0, 1.0 / 10755.0, 1.0}) {
    std::vector<double> k(kReference);
    for (double& v : k) v *= scale;
    const PreparedKernel p = PrepareKernel(k, 19, 7);
    ASSERT_EQ(p.width, 22);
    ASSERT_EQ(p.height, 9);
    const auto in = Interior(p);
    // Expected: (reference + 2 r x correction) over the first 133 positions read as rows of 20,
    // divided by their sum; the last 7 stay unnormalised (here all zero).
    std::vector<double> blend(140);
    for (int y = 0; y < 7; ++y)
      for (int x = 0; x < 20; ++x)
        blend[y * 20 + x] =
            (x < 19 ? kReference[y * 19 + x] : 0.0) + 2.0 / scale * Correction(x, y);
    const double sum = std::accumulate(blend.begin(), blend.begin() + 133, 0.0);
    for (int i = 0; i < 140; ++i) {
      const double expected = i < 133 ? blend[i] / sum : blend[i];
      EXPECT_NEAR(in[i], expected, 1e-12) << i;
    }
    EXPECT_NEAR(std::accumulate(in.begin(), in.begin() + 133, 0.0), 1.0, 1e-12);
  }
}

TEST(PrepareKernel, NearMatchKeepsTheLastSevenBlendedValuesOnThe255Scale) {
  // Row 6, columns 13 and 14 of the 19-wide kernel get 0.5 and 0.4: L1 distance 0.9 < 3.
  std::vector<double> k(kReference);
  k[6 * 19 + 13] = 0.5;
  k[6 * 19 + 14] = 0.4;
  const double total = std::accumulate(k.begin(), k.end(), 0.0);
  const double r = 3585.0 / total;
  const auto in = Interior(PrepareKernel(k, 19, 7));
  // Column 13 of row 6 (0-based 133 in the 19-wide layout) lands at index 133 of the 20-wide
  // buffer: the first of the unnormalised tail.
  EXPECT_NEAR(in[133], 0.5 * r, 1e-9);
  EXPECT_NEAR(in[134], 0.4 * r, 1e-9);
}

TEST(PrepareKernel, FarFrom19x7ReferenceIsRenormalisedAndReadAsRowsOf20) {
  std::vector<double> k(19 * 7, 0.0);
  for (int x = 0; x < 19; ++x) k[3 * 19 + x] = 1.0;  // a horizontal line ...
  k[0] = k[6 * 19 + 18] = 1.0;                       // ... with a 19 x 7 support
  const PreparedKernel p = PrepareKernel(k, 19, 7);
  ASSERT_EQ(p.width, 22);
  ASSERT_EQ(p.height, 9);
  const auto in = Interior(p);
  // The 133 values in stored order, each 1/21 or 0, then 7 zeros.
  for (int i = 0; i < 140; ++i) EXPECT_NEAR(in[i], i < 133 ? k[i] / 21.0 : 0.0, 1e-15) << i;
}

TEST(PrepareKernel, OtherKernelsAreOnlyTrimmedAndBordered) {
  // 15 x 15 with support 9 x 11 (columns 3..11, rows 2..12), not normalised.
  std::vector<double> k(15 * 15, 0.0);
  for (int y = 2; y <= 12; ++y)
    for (int x = 3; x <= 11; ++x) k[y * 15 + x] = 2.0 + x + y;
  k[0] = 0.01;  // below peak / 255: trimmed away
  const PreparedKernel p = PrepareKernel(k, 15, 15);
  ASSERT_EQ(p.width, 11);
  ASSERT_EQ(p.height, 13);
  const auto in = Interior(p);
  for (int y = 0; y < 11; ++y)
    for (int x = 0; x < 9; ++x) EXPECT_EQ(in[y * 9 + x], k[(y + 2) * 15 + x + 3]);
}

TEST(PrepareKernel, RefusesKernelsWithoutPositiveOrWithNonFiniteValues) {
  EXPECT_THROW(PrepareKernel(std::vector<double>(9, 0.0), 3, 3), Error);
  EXPECT_THROW(PrepareKernel(std::vector<double>(9, -1.0), 3, 3), Error);
  std::vector<double> k(9, 0.1);
  k[4] = std::numeric_limits<double>::quiet_NaN();
  EXPECT_THROW(PrepareKernel(k, 3, 3), Error);
  k[4] = std::numeric_limits<double>::infinity();
  EXPECT_THROW(PrepareKernel(k, 3, 3), Error);
}

TEST(RunDeconvEngine, UnknownVariantsLeaveTheOutputUntouched) {
  std::vector<double> input(8 * 6, 0.5), output(8 * 6, -7.0), kernel{0.25, 0.5, 0.25};
  DeconvRequest r{input.data(), output.data(), kernel.data(), 8, 6, 1, 3, 1, 0.0005, 20, 0};
  for (int variant : {0, 3, -1}) {
    EXPECT_EQ(RunDeconvEngine(r, variant), 0);
    for (double v : output) ASSERT_EQ(v, -7.0);
  }
  EXPECT_EQ(RunDeconvEngine(r, kFrequencySolverVariant), 0);
  for (double v : output) EXPECT_NEAR(v, 0.5, 1e-9);  // a flat image stays flat
}

TEST(RunDeconvEngine, RefusesMalformedRequests) {
  std::vector<double> input(16, 0.5), output(16), kernel{1.0};
  DeconvRequest good{input.data(), output.data(), kernel.data(), 4, 4, 1, 1, 1, 0.0005, 20, 0};
  EXPECT_EQ(RunDeconvEngine(good, 1), 0);
  for (auto mutate : std::vector<void (*)(DeconvRequest&)>{
           [](DeconvRequest& r) { r.width = 0; }, [](DeconvRequest& r) { r.height = -3; },
           [](DeconvRequest& r) { r.channels = 0; }, [](DeconvRequest& r) { r.kernelWidth = 0; },
           [](DeconvRequest& r) { r.width = r.height = 1 << 30; },
           [](DeconvRequest& r) { r.input = nullptr; },
           [](DeconvRequest& r) { r.noise = std::numeric_limits<double>::infinity(); },
           [](DeconvRequest& r) { r.noise = std::numeric_limits<double>::quiet_NaN(); },
           [](DeconvRequest& r) { r.localPriorWeight = std::numeric_limits<double>::quiet_NaN(); },
           [](DeconvRequest& r) {
             r.localPriorWeight = -std::numeric_limits<double>::infinity();
           }}) {
    DeconvRequest r = good;
    mutate(r);
    EXPECT_THROW(RunDeconvEngine(r, 1), Error);
  }
}

}  // namespace
}  // namespace marlith
