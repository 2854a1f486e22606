// One kernel refinement pass on a synthetic grey image, and where its time goes: the two
// deconvolutions, the normal equations of the kernel fit, and the rest of the fit (its dense
// solves). Usage: refinement_bench [size] [kernel size]
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <random>
#include <vector>

#include "bench/synthesis.h"
#include "plane/plane_padding.h"
#include "refine/kernel_reestimation.h"
#include "refine/kernel_refinement_pass.h"

namespace {

double Seconds(std::chrono::steady_clock::time_point since) {
  return std::chrono::duration<double>(std::chrono::steady_clock::now() - since).count();
}

}  // namespace

int main(int argc, char** argv) {
  using namespace marlith;
  const int n = argc > 1 ? std::atoi(argv[1]) : 512;
  const int k = argc > 2 ? std::atoi(argv[2]) : 15;
  std::mt19937 rng(1);
  std::uniform_real_distribution<double> u(0.0, 1.0);
  std::vector<double> sharp(static_cast<size_t>(n) * n, 0.5);
  for (int r = 0; r < 400; ++r) {  // rectangles of random levels
    const int x0 = static_cast<int>(u(rng) * n), y0 = static_cast<int>(u(rng) * n);
    const int w = 4 + static_cast<int>(u(rng) * n / 6), h = 4 + static_cast<int>(u(rng) * n / 6);
    const double level = u(rng);
    for (int y = y0; y < std::min(n, y0 + h); ++y)
      for (int x = x0; x < std::min(n, x0 + w); ++x) sharp[static_cast<size_t>(y) * n + x] = level;
  }
  const std::vector<double> kernel = MakeGaussianKernel(k, k, k / 5.0);
  auto blurred = synthesis::Blur(sharp, n, n, 1, kernel, k, k, synthesis::BlurBorder::kCircular);
  synthesis::AddGaussianNoise(blurred, 0.005, 2);

  std::vector<double> refined = kernel, output(sharp.size());
  DeconvRequest request{
      blurred.data(), output.data(), refined.data(), n, n, 1, k, k, 0.0005, 20, 0};
  auto t = std::chrono::steady_clock::now();
  RunKernelRefinementPass(request, refined);
  const double pass = Seconds(t);

  // The fit's parts on the same sizes (the latent image does not change their cost).
  std::vector<double> N, h, estimate = kernel;
  t = std::chrono::steady_clock::now();
  buildNormalEquations(blurred, output, n, n, 1, k, k, N, h);
  const double normal = Seconds(t);
  t = std::chrono::steady_clock::now();
  reestimateKernel(blurred, output, n, n, 1, kernel, k, k, estimate);
  const double fit = Seconds(t);

  std::printf("refinement pass, %d x %d grey, %d x %d kernel: %.3f s\n", n, n, k, k, pass);
  std::printf(
      "  kernel fit: %.3f s (normal equations %.3f s, active set and dense solves %.3f s)\n", fit,
      normal, fit - normal);
  std::printf("  two deconvolutions and the rest: %.3f s\n", pass - fit);
  return 0;
}
