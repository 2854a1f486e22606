// The fast solver (half spectra, fused passes) against the plain reference: same answers to
// 1e-9 of the result's scale on several sizes, kernels and settings.
#include <gtest/gtest.h>

#include <algorithm>
#include <cmath>
#include <random>

#include "engine/engine_driver.h"
#include "plane/deconv_solver.h"
#include "plane/plane_padding.h"
#include "reference_solver.h"
#include "support/test_support.h"

namespace marlith {
namespace {

double MaxRelativeDifference(std::span<const double> a, const std::vector<double>& b) {
  double diff = 0.0, scale = 0.0;
  for (size_t i = 0; i < b.size(); ++i) {
    diff = std::max(diff, std::fabs(a[i] - b[i]));
    scale = std::max(scale, std::fabs(b[i]));
  }
  return diff / scale;
}

struct Case {
  int W, H, kw, kh;
  double noise, weight;
  bool mask;
};

TEST(SolverEquivalence, FastSolverMatchesThePlainReferenceTo1e9) {
  for (const Case& c :
       {Case{32, 24, 5, 5, 0.0005, 0.0, false}, Case{30, 18, 7, 3, 0.00005, 0.0, false},
        Case{48, 40, 9, 9, 0.002, 20.0, true}, Case{16, 16, 16, 16, 0.0005, 0.0, false},
        Case{40, 22, 3, 11, 0.0, 0.0, false}, Case{64, 50, 15, 15, 0.1, 0.0, false}}) {
    const size_t n = static_cast<size_t>(c.W) * c.H;
    const auto observed = test::RandomValues(n, c.W * 7 + c.kw, 0.0, 1.0);
    auto kernel = test::RandomValues(static_cast<size_t>(c.kw) * c.kh, c.kh, 0.0, 1.0);
    double sum = 0.0;
    for (double v : kernel) sum += v;
    for (double& v : kernel) v /= sum;
    test::ReferenceSettings settings;
    settings.noise = c.noise;
    settings.localPriorWeight = c.weight;
    if (c.mask) settings.mask = test::RandomValues(n, 99, 0.0, 1.0);

    SpectralDeconvSolver solver;
    solver.Setup(nullptr, c.W, c.H, 0);
    solver.SetKernel(kernel, c.kw, c.kh);
    solver.SetIterationSettings(c.weight, 15, 15, 0.000144, 9);
    if (c.mask) solver.SetLocalPrior(settings.mask, c.weight);
    solver.SetPriorShape(0.0001, 0.5, 1.0);
    solver.SetImage(observed.data());
    solver.PrepareWeights(129);
    solver.SolveWithNoise(c.noise);
    const auto expected = test::ReferenceSolve(observed, c.W, c.H, kernel, c.kw, c.kh, settings);
    EXPECT_LT(MaxRelativeDifference(solver.output(), expected), 1e-9)
        << c.W << "x" << c.H << " kernel " << c.kw << "x" << c.kh;
    // The working planes are kept for the next solve: it must start from nothing left over.
    const std::vector<double> first(solver.output().begin(), solver.output().end());
    solver.SolveWithNoise(c.noise * 4);
    solver.SolveWithNoise(c.noise);
    EXPECT_TRUE(std::equal(first.begin(), first.end(), solver.output().begin()))
        << c.W << "x" << c.H << " solved again";
  }
}

TEST(SolverEquivalence, EngineRunsMatchTheReferenceOnEvenSizedPlanesCroppedBack) {
  // An odd 27 x 19 three-channel image with a diagonal line, extended to 28 x 20 by repeating
  // its last column and row, solved and cropped back; a 6 x 1 line, bordered to 8 x 3, on an
  // 8 x 12 image, solved where it lies: no room left across, some down.
  std::vector<double> diagonal(5 * 5, 0.0);
  for (int i = 0; i < 5; ++i) diagonal[i * 5 + i] = 1.0 / 5;
  const std::vector<double> line = {1 / 12.0, 2 / 12.0, 3 / 12.0, 3 / 12.0, 2 / 12.0, 1 / 12.0};
  struct Run {
    int w, h, channels;
    const std::vector<double>& kernel;
    int kw, kh;
    double noise;  // 50: no round at all, the image comes back
  };
  for (const Run& c : {Run{27, 19, 3, diagonal, 5, 5, 0.0005}, Run{8, 12, 3, line, 6, 1, 0.0005},
                       Run{8, 12, 3, line, 6, 1, 50.0}}) {
    const int W = c.w + c.w % 2, H = c.h + c.h % 2, n = c.w * c.h;
    const auto input = test::RandomValues(c.channels * n, 5, 0.0, 1.0);
    // Solved in place, as the command line does.
    std::vector<double> output = input;
    DeconvRequest request{output.data(), output.data(), c.kernel.data(), c.w, c.h, c.channels,
                          c.kw,          c.kh,          c.noise,         20,  0};
    ASSERT_EQ(RunDeconvEngine(request, kFrequencySolverVariant), 0);
    // The engine hands the solver the kernel with a zero border.
    const auto bordered = PadCenteredUp(std::span(c.kernel), c.kw, c.kh, c.kw + 2, c.kh + 2);
    test::ReferenceSettings settings;
    settings.localPriorWeight = 20;
    settings.noise = c.noise;
    for (int ch = 0; ch < c.channels; ++ch) {
      std::vector<double> even(W * H), cropped(n);
      for (int i = 0; i < W * H; ++i)
        even[i] = input[ch * n + std::min(i / W, c.h - 1) * c.w + std::min(i % W, c.w - 1)];
      const auto solved = test::ReferenceSolve(even, W, H, bordered, c.kw + 2, c.kh + 2, settings);
      for (int i = 0; i < n; ++i) cropped[i] = solved[i / c.w * W + i % c.w];  // offsets 0
      EXPECT_LT(MaxRelativeDifference(std::span(output).subspan(ch * n, n), cropped), 1e-9)
          << c.w << " x " << c.h << ", channel " << ch;
    }
  }
}

}  // namespace
}  // namespace marlith
