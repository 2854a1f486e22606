#include "plane/deconv_solver.h"

#include <gtest/gtest.h>

#include <cmath>
#include <numbers>
#include <numeric>
#include <random>

#include "bench/synthesis.h"
#include "marlith/error.hpp"
#include "plane/dft2d.h"
#include "plane/plane_padding.h"
#include "support/test_support.h"

namespace marlith {
namespace {

TEST(SpectralTransform, InverseAfterForwardIsTheIdentity) {
  for (auto [W, H] : {std::pair{6, 4}, std::pair{10, 8}, std::pair{2, 2}}) {
    const size_t n = static_cast<size_t>(W) * H;
    SpectralTransform forward(W, H, SpectralTransform::kForward);
    SpectralTransform inverse(W, H, SpectralTransform::kInverse);
    auto in = AllocateFftwBuffer<double>(n);
    auto out = AllocateFftwBuffer<double>(n);
    auto spectrum = AllocateFftwBuffer<Complex>(HalfSpectrumSize(W, H));
    const auto x = test::RandomValues(static_cast<int>(n), 7);
    std::copy(x.begin(), x.end(), in.get());
    forward.Forward(in.get(), spectrum.get());
    // The DC term is the plane's sum.
    EXPECT_NEAR(spectrum[0].real(), std::accumulate(x.begin(), x.end(), 0.0), 1e-12 * n);
    inverse.Inverse(spectrum.get(), out.get());
    for (size_t i = 0; i < n; ++i) EXPECT_NEAR(out[i], x[i], 1e-14) << W << "x" << H;
  }
}

TEST(Dft2d, OneShotTransformsMatchThePlannedForwardTransform) {
  constexpr int W = 10, H = 6;
  const size_t n = W * H, half = HalfSpectrumSize(W, H);
  const auto x = test::RandomValues(n, 11);
  SpectralTransform forward(W, H, SpectralTransform::kForward);
  auto plane = AllocateFftwBuffer<double>(n);
  auto expected = AllocateFftwBuffer<Complex>(half);
  std::copy(x.begin(), x.end(), plane.get());
  forward.Forward(plane.get(), expected.get());

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

class SolverTest : public ::testing::Test {
 protected:
  static constexpr int W = 32, H = 24;
  SpectralDeconvSolver solver;
  void SetUp() override { solver.Setup(nullptr, W, H, 0); }
};

TEST_F(SolverTest, GradientPowerIsTheSumOfBothDifferenceFilterResponses) {
  // |exp(2 pi i u / W) - 1|^2 = 2 - 2 cos(2 pi u / W), plus the same along the columns.
  const auto power = solver.gradientPower();
  const int Wc = W / 2 + 1;
  for (int v = 0; v < H; ++v)
    for (int u = 0; u < Wc; ++u) {
      const double expected = 4.0 - 2.0 * std::cos(2 * std::numbers::pi * u / W) -
                              2.0 * std::cos(2 * std::numbers::pi * v / H);
      EXPECT_NEAR(power[v * Wc + u], expected, 1e-12) << u << "," << v;
    }
}

TEST_F(SolverTest, KernelSpectrumConvolvesAboutTheKernelsCentreTap) {
  // An asymmetric 5 x 3 kernel; K * X brought back must equal the circular convolution.
  const std::vector<double> k = {0.0, 0.1, 0.2,  0.0, 0.05, 0.0, 0.3, 0.0,
                                 0.1, 0.0, 0.05, 0.0, 0.1,  0.0, 0.1};
  solver.SetKernel(k, 5, 3);
  const auto x = test::RandomValues(W * H, 3, 0.0, 1.0);
  SpectralTransform forward(W, H, SpectralTransform::kForward);
  SpectralTransform inverse(W, H, SpectralTransform::kInverse);
  auto plane = AllocateFftwBuffer<double>(W * H);
  auto spectrum = AllocateFftwBuffer<Complex>(HalfSpectrumSize(W, H));
  std::copy(x.begin(), x.end(), plane.get());
  forward.Forward(plane.get(), spectrum.get());
  const auto conjK = solver.conjKernel();
  const auto power = solver.kernelPower();
  for (size_t i = 0; i < conjK.size(); ++i) {
    EXPECT_NEAR(power[i], std::norm(conjK[i]), 1e-12);
    spectrum[i] *= std::conj(conjK[i]);
  }
  inverse.Inverse(spectrum.get(), plane.get());
  const auto expected = synthesis::Blur(x, W, H, 1, k, 5, 3, synthesis::BlurBorder::kCircular);
  for (int i = 0; i < W * H; ++i) EXPECT_NEAR(plane[i], expected[i], 1e-12) << i;
}

TEST_F(SolverTest, KernelAsLargeAsThePlaneIsShiftedButNotPaddedAndLargerIsRefused) {
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

TEST_F(SolverTest, BetaDoublesUpToItsCapInclusive) {
  const auto x = test::RandomValues(W * H, 4, 0.0, 1.0);
  solver.SetKernel(MakeGaussianKernel(5, 5, 1.0), 5, 5);
  solver.SetIterationSettings(0.0, 15, 15, 0.000144, 9);
  solver.SetPriorShape(0.0001, 0.5, 1.0);
  solver.SetImage(x.data());
  solver.PrepareWeights(129);
  solver.SolveWithNoise(0.0);  // taken as 1e-12: beta runs 1 .. 2^20 = the cap
  EXPECT_EQ(solver.betaMax, 1048576.0);
  EXPECT_EQ(solver.lastSolve.outerRounds, 21);
  solver.SolveWithNoise(0.0005);  // lambda 100, betaMax 10000: beta 1 .. 8192
  EXPECT_DOUBLE_EQ(solver.betaMax, 10000.0);
  EXPECT_EQ(solver.lastSolve.outerRounds, 14);
  EXPECT_GE(solver.lastSolve.innerRounds, 14);
  EXPECT_LE(solver.lastSolve.innerRounds, 14 * 25);
  solver.SolveWithNoise(0.05 * 100 / 1024.0);  // betaMax exactly 1024 still runs
  EXPECT_EQ(solver.lastSolve.outerRounds, 11);
}

}  // namespace
}  // namespace marlith
