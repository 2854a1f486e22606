#include "plane/split_deconv_solver.h"

#include <gtest/gtest.h>

#include <cmath>
#include <vector>

#include "wmlMath/WmlLinearSystem.h"

namespace marlith {
namespace {

// With the prior made quadratic (k = 0, a = 1, l = 0: phi(g) = g^2), the split solve must reach
// the minimiser of lambda / 2 sum_i w_i ((K x)_i - y_i)^2 + sum_j (D_j x)^2, which the dense
// normal equations (lambda K' W K + 2 D' D) x = lambda K' W y give. Samples of weight 0 (the
// unknown margin) are restored from the prior alone; the kernel is asymmetric, so a flipped or
// shifted kernel, a wrong adjoint or a dual of the wrong sign all miss the reference.
TEST(SplitDeconvSolver, ReachesTheDenseMinimiserWithUnobservedMargins) {
  struct Case {
    VolumeSize size;
    double zWeight;
  };
  for (const Case& c : {Case{{9, 7, 1}, 1.0}, Case{{5, 4, 3}, 0.5}}) {
    const VolumeSize size = c.size;
    const int n = static_cast<int>(size.Samples());
    const VolumeSize kernelSize{3, 3, size.depth > 1 ? 3 : 1};
    std::vector<double> kernel(kernelSize.Samples(), 0.0);
    kernel[1] = 0.2, kernel[3] = 0.5, kernel[4] = 0.3;  // (1,0), (0,1), centre
    if (size.depth > 1) kernel[4 + 9] = 0.3, kernel[4] = 0.1, kernel[1 + 18] = 0.1;
    std::vector<double> observed(n);
    std::vector<float> weights(n);
    for (int i = 0; i < n; ++i) {
      observed[i] = 0.5 + 0.4 * std::sin(1.7 * i) * std::cos(0.3 * i);
      const int x = i % size.width, y = i / size.width % size.height;
      weights[i] = (x == 0 || y == size.height - 1) ? 0.0f : 0.5f + (i % 3) * 0.25f;
    }
    const double lambda = 50.0;

    // The dense problem: K as a matrix of the periodic convolution (origin at the kernel's centre).
    auto index = [&](int x, int y, int z) {
      x = (x + size.width) % size.width, y = (y + size.height) % size.height,
      z = (z + size.depth) % size.depth;
      return (z * size.height + y) * size.width + x;
    };
    Wml::GMatrix<double> a(n, n);
    std::vector<double> b(n, 0.0);
    std::vector<std::vector<double>> k(n, std::vector<double>(n, 0.0));
    for (int z = 0; z < size.depth; ++z)
      for (int y = 0; y < size.height; ++y)
        for (int x = 0; x < size.width; ++x)
          for (int kz = 0; kz < kernelSize.depth; ++kz)
            for (int ky = 0; ky < 3; ++ky)
              for (int kx = 0; kx < 3; ++kx)
                k[index(x, y, z)][index(x - (kx - 1), y - (ky - 1),
                                       z - (kz - kernelSize.depth / 2))] +=
                    kernel[(kz * 3 + ky) * 3 + kx];
    for (int i = 0; i < n; ++i)
      for (int j = 0; j < n; ++j) {
        double s = 0.0;
        for (int r = 0; r < n; ++r) s += k[r][i] * weights[r] * k[r][j];
        a[i][j] = lambda * s;
      }
    for (int j = 0; j < n; ++j)
      for (int r = 0; r < n; ++r) b[j] += lambda * k[r][j] * weights[r] * observed[r];
    const double zw = size.depth > 1 ? c.zWeight : 0.0;
    for (int z = 0; z < size.depth; ++z)
      for (int y = 0; y < size.height; ++y)
        for (int x = 0; x < size.width; ++x) {
          const int i = index(x, y, z);
          const std::pair<int, double> steps[] = {
              {index(x + 1, y, z), 1.0}, {index(x, y + 1, z), 1.0}, {index(x, y, z + 1), zw}};
          for (auto [j, scale] : steps) {
            const double s2 = 2.0 * scale * scale;  // 2 D'D for the difference x_j - x_i
            a[i][i] += s2, a[j][j] += s2, a[i][j] -= s2, a[j][i] -= s2;
          }
        }
    std::vector<double> reference(n);
    ASSERT_TRUE(Wml::LinearSystem<double>::Solve(a, b.data(), reference.data()));

    SplitDeconvSolver solver(size, kernel, kernelSize, 1);
    SplitSolveSettings settings;
    settings.lambda = lambda;
    settings.zWeight = c.zWeight;
    settings.prior = {0.0, 1.0, 0.0};
    settings.betaCap = 1e6;
    settings.tolerance = 1e-14;
    settings.maxInnerRounds = 400;
    std::vector<double> estimate = observed;
    solver.Solve(observed, weights, estimate, settings);
    for (int i = 0; i < n; ++i) EXPECT_NEAR(estimate[i], reference[i], 2e-3) << "sample " << i;
  }
}

TEST(SplitDeconvSolver, HoldsBoundsAndPositivity) {
  // An identity kernel with three samples a bound: the data step keeps the blur at or above a
  // lower bound and at or below an upper one, and the positivity split keeps the estimate from
  // going below zero where the data ask for it.
  const VolumeSize size{8, 6, 1};
  const int n = static_cast<int>(size.Samples());
  std::vector<double> observed(n, 0.4), kernel{1.0};
  std::vector<float> weights(n, 1.0f);
  observed[10] = 0.9, weights[10] = kLowerBoundSample;  // at least 0.9: the data say 0.9
  observed[20] = 0.1, weights[20] = kUpperBoundSample;  // at most 0.1
  observed[30] = -0.5;                                  // negative data
  SplitDeconvSolver solver(size, kernel, {1, 1, 1}, 2);
  SplitSolveSettings settings;
  settings.lambda = 1e4;
  settings.positivity = 1.0;
  std::vector<double> estimate = observed;
  solver.Solve(observed, weights, estimate, settings);
  EXPECT_GT(estimate[10], 0.9 - 0.02);
  EXPECT_LT(estimate[20], 0.1 + 0.02);
  EXPECT_GT(estimate[30], -0.02);
  EXPECT_NEAR(estimate[40], 0.4, 0.02);
}

}  // namespace
}  // namespace marlith
