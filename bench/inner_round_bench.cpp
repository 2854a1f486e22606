// Time of one inner round of the half-quadratic solve against the two transforms it must do
// (one forward, one inverse; same size, same library, same plans, same threads): their ratio is
// the solver's distance from the transform-bound limit.
// Usage: inner_round_bench [width] [height] [threads]
#include <algorithm>
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <random>
#include <vector>

#include "plane/deconv_solver.h"
#include "plane/plane_padding.h"

int main(int argc, char** argv) {
  using namespace marlith;
  const int W = argc > 1 ? std::atoi(argv[1]) : 1000;
  const int H = argc > 2 ? std::atoi(argv[2]) : 1000;
  const int threads = argc > 3 ? std::atoi(argv[3]) : 1;
  const size_t n = static_cast<size_t>(W) * H;

  std::mt19937 rng(1);
  std::uniform_real_distribution<double> u(0.0, 1.0);
  std::vector<double> image(n);
  for (double& v : image) v = u(rng);

  SpectralDeconvSolver solver;
  solver.Setup(nullptr, W, H, 0, threads);
  solver.SetKernel(MakeGaussianKernel(15, 15, 3.0), 15, 15);
  solver.SetIterationSettings(20.0, 15, 15, 0.000144, 9);
  solver.SetPriorShape(0.0001, 0.5, 1.0);
  solver.SetImage(image.data());
  solver.PrepareWeights(129);
  solver.iterationBudget = 50;
  // The first solve also obtains the solver's working planes; the round time is the best
  // per-round average of a few solves, as the transforms' time is the best of a few runs.
  double solveSeconds = 0.0, round = 1e300;
  for (int rep = 0; rep < 4; ++rep) {
    const auto solveStart = std::chrono::steady_clock::now();
    solver.SolveWithNoise(0.0005);
    const double seconds =
        std::chrono::duration<double>(std::chrono::steady_clock::now() - solveStart).count();
    if (rep == 0) solveSeconds = seconds;
    round = std::min(round, solver.lastSolve.innerSeconds / solver.lastSolve.innerRounds);
  }

  // The same two transforms on the same kind of buffers, best of several repetitions.
  SpectralTransform forward(W, H, SpectralTransform::kForward, threads);
  SpectralTransform inverse(W, H, SpectralTransform::kInverse, threads);
  auto a = AllocateFftwBuffer<double>(n);
  auto sa = AllocateFftwBuffer<Complex>(HalfSpectrumSize(W, H));
  std::copy(image.begin(), image.end(), a.get());
  double best = 1e300;
  for (int rep = 0; rep < 15; ++rep) {
    const auto t0 = std::chrono::steady_clock::now();
    forward.Forward(a.get(), sa.get());
    inverse.InverseUnscaled(sa.get(), a.get());
    best = std::min(best,
                    std::chrono::duration<double>(std::chrono::steady_clock::now() - t0).count());
    std::copy(image.begin(), image.end(), a.get());
  }
  std::printf("size %d x %d, threads %d\n", W, H, threads);
  std::printf("first solve: %.3f s, %d beta rounds, %d inner rounds\n", solveSeconds,
              solver.lastSolve.outerRounds, solver.lastSolve.innerRounds);
  std::printf("inner round: %.2f ms; two transforms: %.2f ms; ratio %.3f\n", round * 1e3,
              best * 1e3, round / best);
  return 0;
}
