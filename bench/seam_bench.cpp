// Time, iterations and memory of the fits of the border extension for an image size and kernel
// size, as the deconvolution runs them (bands of one kernel, gaps of six): the two seam strips
// with the iterative solve and, if asked, the sparse LU it replaces (printing their largest
// difference), then the corner block. First, the fast margins' direct fit of the same image,
// whole. The peak resident size is printed after each step.
// Usage: seam_bench [width] [height] [kernel] [direct: 0|1]
#include <sys/resource.h>

#include <algorithm>
#include <chrono>
#include <cmath>
#include <cstdio>
#include <cstdlib>
#include <random>
#include <vector>

#include "fit/border_extension.h"
#include "fit/kernel_bank.h"
#include "fit/plane_filter.h"
#include "fit/seam_layout.h"
#include "fit/thin_plate_fit.h"
#include "plane/worker_pool.h"

namespace {

// Largest |(B + diag(w)) x - w d| over the largest |w d|.
double Residual(const std::vector<double>& x, const std::vector<double>& w,
                const std::vector<double>& d, int width, int height) {
  const marlith::SparseMatrixCSR m = marlith::buildFilterMatrix(
      marlith::thinPlateStencil(), 5, 5, marlith::kCorrelation, width, height);
  double worst = 0.0, scale = 0.0;
  for (int r = 0; r < m.rows; ++r) {
    double s = w[r] * (x[r] - d[r]);
    for (int e = m.rowStarts[r] - 1; e < m.rowStarts[r + 1] - 1; ++e)
      s += m.values[e] * x[m.columnIndices[e] - 1];
    worst = std::max(worst, std::fabs(s));
    scale = std::max(scale, std::fabs(w[r] * d[r]));
  }
  return worst / scale;
}

long PeakMiB() {
  rusage usage{};
  getrusage(RUSAGE_SELF, &usage);
  return usage.ru_maxrss / 1024;
}

double Seconds(std::chrono::steady_clock::time_point since) {
  return std::chrono::duration<double>(std::chrono::steady_clock::now() - since).count();
}

}  // namespace

int main(int argc, char** argv) {
  using namespace marlith;
  const int W = argc > 1 ? std::atoi(argv[1]) : 4242;
  const int H = argc > 2 ? std::atoi(argv[2]) : 2828;
  const int k = argc > 3 ? std::atoi(argv[3]) : 63;
  const bool direct = argc > 4 && std::atoi(argv[4]) != 0;
  const SeamLayout L(W, H, 3 * k, 3 * k, k, k);

  // A smooth image with noise, so the fits have data like a photograph's.
  std::mt19937 rng(1);
  std::normal_distribution<double> noise(0.0, 0.02);
  std::vector<double> image(static_cast<size_t>(W) * H);
  for (int y = 0; y < H; ++y)
    for (int x = 0; x < W; ++x)
      image[static_cast<size_t>(y) * W + x] =
          0.5 + 0.3 * std::sin(x * 0.01) * std::cos(y * 0.013) + noise(rng);

  std::printf("image %d x %d, kernel %d, %d threads\n", W, H, k, ResolveThreads(0));
  {
    const auto start = std::chrono::steady_clock::now();
    const std::vector<double> padded =
        extendPeriodicBorderPlanesFast(image, 1, W, H, L.padX, L.padY, L.bandX, L.bandY);
    std::printf("fast margins, both strips solved directly: %.3f s, peak %ld MiB\n", Seconds(start),
                PeakMiB());
  }
  struct Strip {
    const char* name;
    int w, h;
    std::vector<double> weights, data;
  } strips[2] = {{"left-right", L.SW, L.H, LeftRightWeights(L), std::vector<double>(L.lrSize())},
                 {"top-bottom", L.W, L.SH, TopBottomWeights(L), std::vector<double>(L.tbSize())}};
  FillLeftRight(L, image.data(), strips[0].data.data());
  FillTopBottom(L, image.data(), strips[1].data.data());
  for (Strip& s : strips) {
    std::vector<double> iterative(s.data.size()), exact(s.data.size());
    auto start = std::chrono::steady_clock::now();
    const ThinPlateSystem system(s.weights, s.w, s.h);
    const double setup = Seconds(start);
    start = std::chrono::steady_clock::now();
    system.Solve(s.data, iterative);
    const double solve = Seconds(start);
    std::printf(
        "%s strip %d x %d: %d iterations, setup %.3f s, solve %.3f s, residual %.1e, "
        "peak %ld MiB\n",
        s.name, s.w, s.h, system.iterations(), setup, solve,
        Residual(iterative, s.weights, s.data, s.w, s.h), PeakMiB());
    if (!direct) {
      s.data = iterative;
      continue;
    }
    start = std::chrono::steady_clock::now();
    const ThinPlateSystem lu(s.weights, s.w, s.h, ThinPlateMethod::kDirect);
    const double luSetup = Seconds(start);
    start = std::chrono::steady_clock::now();
    lu.Solve(s.data, exact);
    const double luSolve = Seconds(start);
    double diff = 0.0, scale = 0.0;
    for (size_t i = 0; i < exact.size(); ++i) {
      diff = std::max(diff, std::fabs(exact[i] - iterative[i]));
      scale = std::max(scale, std::fabs(exact[i]));
    }
    std::printf(
        "  sparse LU: factorisation %.3f s, solve %.3f s, residual %.1e; largest "
        "difference %.1e of the largest value\n",
        luSetup, luSolve, Residual(exact, s.weights, s.data, s.w, s.h), diff / scale);
    s.data = iterative;
  }
  std::vector<double> corner(L.cornerSize());
  FillCorner(L, strips[0].data.data(), strips[1].data.data(), corner.data());
  auto start = std::chrono::steady_clock::now();
  const ThinPlateSystem system(CornerWeights(L), L.SW, L.SH);
  const double setup = Seconds(start);
  start = std::chrono::steady_clock::now();
  system.Solve(corner, corner);
  std::printf("corner block %d x %d: %d iterations, setup %.3f s, solve %.3f s, peak %ld MiB\n",
              L.SW, L.SH, system.iterations(), setup, Seconds(start), PeakMiB());
}
