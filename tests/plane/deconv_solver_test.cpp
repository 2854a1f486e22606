#include "plane/deconv_solver.h"

#include <gtest/gtest.h>

#include <cmath>

#include "marlith/error.hpp"
#include "plane/dft2d.h"
#include "support/test_support.h"

namespace marlith {
namespace {

TEST(Dft2d, OneShotTransformsMatchThePlannedForwardTransform) {
  constexpr int W = 10, H = 6;
  const size_t n = W * H, half = HalfSpectrumSize(W, H);
  const auto x = test::RandomValues(n, 11);
  SpectralTransform forward(W, H, SpectralTransform::kForward);
  auto plane = AllocateFftwBuffer<double>(n);
  auto expected = AllocateFftwBuffer<Complex>(half);
  std::copy(x.begin(), x.end(), plane.get());
  forward.Forward(plane.get(), expected.get());
  // The same transform in place, on rows padded to the spectrum's row length.
  SpectralTransform inPlace(W, H, SpectralTransform::kForward, 1, SpectralTransform::kInPlace);
  auto padded = AllocateFftwBuffer<Complex>(half);
  for (int y = 0; y < H; ++y)
    std::copy_n(x.begin() + y * W, W, reinterpret_cast<double*>(padded.get()) + y * (W + 2));
  inPlace.ForwardInPlace(padded.get());

  std::vector<Complex> once(half);
  ASSERT_EQ(Dft2d(x.data(), W, H, once.data()), 0);
  // In place: the block holds the plane first, the half spectrum after.
  std::vector<double> block(2 * half, 0.0);
  std::copy(x.begin(), x.end(), block.begin());
  ASSERT_EQ(Dft2dInPlaceSafe(block.data(), W, H, block.data()), 0);
  std::vector<float> single(x.begin(), x.end());
  std::vector<std::complex<float>> singleOut(half);
  ASSERT_EQ(Dft2dSingle(single.data(), W, H, singleOut.data()), 0);
  for (size_t i = 0; i < half; ++i) {
    EXPECT_NEAR(std::abs(once[i] - expected[i]), 0.0, 1e-12);
    EXPECT_NEAR(std::abs(padded[i] - expected[i]), 0.0, 1e-12);
    EXPECT_NEAR(std::abs(Complex(block[2 * i], block[2 * i + 1]) - expected[i]), 0.0, 1e-12);
    EXPECT_NEAR(std::abs(Complex(singleOut[i]) - expected[i]), 0.0, 1e-4);
  }
  // A size FFTW cannot plan: the status is printed and the caller goes on.
  testing::internal::CaptureStdout();
  EXPECT_EQ(Dft2d(x.data(), -4, H, once.data()), -1);
  EXPECT_EQ(testing::internal::GetCapturedStdout(), "ERROR: bad status: -1\n");
}

TEST(CircularShiftHalf, TwiceRestoresEvenPlanesButNotOddOnes) {
  const auto even = test::RandomValues(6 * 4, 1, 0.0, 1.0);
  std::vector<double> shifted(even.size());
  CircularShiftHalf(even, shifted, 6, 4);
  EXPECT_EQ(shifted[(0 + 2) * 6 + (1 + 3)], even[0 * 6 + 1]);
  EXPECT_EQ(shifted[((3 + 2) % 4) * 6 + (5 + 3) % 6], even[3 * 6 + 5]);
  CircularShiftHalf(shifted, shifted, 6, 4);  // in place
  EXPECT_EQ(shifted, even);

  const auto odd = test::RandomValues(5 * 3, 2, 0.0, 1.0);
  std::vector<double> twice(odd.size());
  CircularShiftHalf(odd, twice, 5, 3);
  EXPECT_EQ(twice[1 * 5 + 2], odd[0]);  // by floor(W/2) = 2 columns, floor(H/2) = 1 row
  CircularShiftHalf(twice, twice, 5, 3);
  EXPECT_NE(twice, odd);
}

TEST(SpectralDeconvSolver, KernelAsLargeAsThePlaneIsShiftedButNotPaddedAndLargerIsRefused) {
  constexpr int W = 32, H = 24;
  SpectralDeconvSolver solver;
  solver.Setup(nullptr, W, H, 0);
  std::vector<double> k(W * H, 0.0);
  k[(H / 2) * W + W / 2] = 1.0;  // its centre tap: after the half shift, a delta at the origin
  solver.SetKernel(k, W, H);
  for (double p : solver.kernelPower()) EXPECT_NEAR(p, 1.0, 1e-12);
  EXPECT_THROW(solver.SetKernel(std::vector<double>((W + 1) * 3, 0.1), W + 1, 3), Error);
}

TEST(PiecewisePriorShrink, MatchesHandComputedMinimisers) {
  const double k = 1.0, a = 0.0001, l = 0.5, b = 0.499975;
  // No local prior (m = 0), t = 0.1: small gradients shrink by t k toward 0 ...
  EXPECT_NEAR(PiecewisePriorShrink(0.3, 0.0, 0.0, 0.1, 0.0, k, a, b, l), 0.2, 1e-15);
  EXPECT_NEAR(PiecewisePriorShrink(-0.3, 0.0, 0.0, 0.1, 0.0, k, a, b, l), -0.2, 1e-15);
  EXPECT_EQ(PiecewisePriorShrink(0.05, 0.0, 0.0, 0.1, 0.0, k, a, b, l), 0.0);
  EXPECT_EQ(PiecewisePriorShrink(-0.05, 0.0, 0.0, 0.1, 0.0, k, a, b, l), 0.0);
  // ... gradients far above l take the quadratic piece, v / (2a + 1).
  EXPECT_NEAR(PiecewisePriorShrink(3.0, 0.0, 0.0, 0.1, 0.0, k, a, b, l), 3.0 / 1.0002, 1e-15);
  EXPECT_NEAR(PiecewisePriorShrink(-3.0, 0.0, 0.0, 0.1, 0.0, k, a, b, l), -3.0 / 1.0002, 1e-15);
  // The linear candidate is capped at l: E1 = (0.5 - 0.8)^2 + 0.05 = 0.14 against the quadratic
  // piece's E2 = (0.79984 - 0.8)^2 + 0.1 (a 0.79984^2 + b) = 0.05006.
  EXPECT_NEAR(PiecewisePriorShrink(0.8, 0.0, 0.0, 0.1, 0.0, k, a, b, l), 0.8 / 1.0002, 1e-15);
  // Local prior m = 1, s = 0.5 pulls toward d = 0.4: v = 0.4, e = 1.5, x1 = 0.2 (E1 = 0.04)
  // beats x2 = l (E2 = 0.145).
  EXPECT_NEAR(PiecewisePriorShrink(0.2, 0.4, 1.0, 0.1, 0.5, k, a, b, l), 0.2, 1e-15);
  // With a large pull the linear candidate moves to d's side: v = 2 * 0.45 + 0 = 0.9, e = 3,
  // x1 = (0.9 - 0.1) / 3.
  EXPECT_NEAR(PiecewisePriorShrink(0.0, 0.45, 1.0, 0.1, 2.0, k, a, b, l), 0.8 / 3.0, 1e-15);
}

}  // namespace
}  // namespace marlith
