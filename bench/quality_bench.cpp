// The standard non-blind protocol on Levin et al.'s data (4 sharp images x 8 kernels): blur
// circularly and with replicated borders, add 1 % white Gaussian noise (fixed seed), deconvolve
// with the true kernel through the engine, measure PSNR and SSIM on the interior (a margin of
// the kernel size) against the sharp image. The engine trims a kernel to its support and
// re-centres it, which can move its output a sample or two; as the published evaluations do,
// the best integer shift within 3 samples is taken before measuring.
//
// Usage: quality_bench [data folder, default ../shared/data/levin] [noise weight]
// Without noise and weight, first sweeps both on the circular set and reports at the best pair.
#include <algorithm>
#include <cmath>
#include <cstdio>
#include <cstdlib>
#include <fstream>
#include <sstream>
#include <stdexcept>
#include <string>
#include <vector>

#include "bench/synthesis.h"
#include "engine/engine_driver.h"

namespace {

using Kernel = marlith::synthesis::TextKernel;
using marlith::synthesis::ReadKernelText;

using marlith::synthesis::BlurBorder;

// The shifted restored plane (by dx, dy, edges clamped) against the sharp one over the interior.
std::vector<double> Shifted(const std::vector<double>& p, int w, int h, int dx, int dy) {
  std::vector<double> out(p.size());
  for (int y = 0; y < h; ++y)
    for (int x = 0; x < w; ++x)
      out[y * w + x] = p[std::clamp(y + dy, 0, h - 1) * w + std::clamp(x + dx, 0, w - 1)];
  return out;
}

struct Score {
  double psnr = 0.0, ssim = 0.0;
};

Score Measure(const std::vector<double>& restored, const std::vector<double>& sharp, int w, int h,
              int margin) {
  Score best{-1e9, 0.0};
  int bx = 0, by = 0;
  for (int dy = -3; dy <= 3; ++dy)
    for (int dx = -3; dx <= 3; ++dx) {
      const double p =
          marlith::synthesis::Psnr(Shifted(restored, w, h, dx, dy), sharp, w, h, 1, margin);
      if (p > best.psnr) {
        best.psnr = p;
        bx = dx;
        by = dy;
      }
    }
  best.ssim = marlith::synthesis::Ssim(Shifted(restored, w, h, bx, by), sharp, w, h, 1, margin);
  return best;
}

struct Case {
  std::vector<double> sharp, blurred;
  int w, h, kernelIndex;
  Kernel kernel;
};

std::vector<Case> MakeCases(const std::string& folder, BlurBorder border) {
  std::vector<Case> cases;
  for (int k = 1; k <= 8; ++k) {
    const Kernel kernel = ReadKernelText(folder + "/kernel" + std::to_string(k) + ".txt");
    for (int i = 1; i <= 4; ++i) {
      const auto image =
          marlith::synthesis::ReadImagePlanes(folder + "/im" + std::to_string(i) + ".png");
      Case c{image.planes, {}, image.width, image.height, k, kernel};
      c.blurred = marlith::synthesis::Blur(c.sharp, c.w, c.h, 1, kernel.values, kernel.width,
                                           kernel.height, border);
      marlith::synthesis::AddGaussianNoise(c.blurred, 0.01, 1000u * k + i);
      cases.push_back(std::move(c));
    }
  }
  return cases;
}

// Mean scores per kernel (index 1..8) and over all, for the given settings.
struct Table {
  Score perKernel[9];
  Score blurredPerKernel[9];
  Score mean, blurredMean;
};

Table Run(const std::vector<Case>& cases, int boundary, double noise, double weight) {
  Table t{};
  for (const Case& c : cases) {
    std::vector<double> out(c.sharp.size());
    const DeconvRequest request{
        c.blurred.data(), out.data(),      c.kernel.values.data(), c.w,           c.h,     1,
        c.kernel.width,   c.kernel.height, noise / 2000.0,         weight * 20.0, boundary};
    marlith::RunDeconvEngine(request, marlith::kFrequencySolverVariant);
    const Score s = Measure(out, c.sharp, c.w, c.h, c.kernel.width);
    const Score b{marlith::synthesis::Psnr(c.blurred, c.sharp, c.w, c.h, 1, c.kernel.width),
                  marlith::synthesis::Ssim(c.blurred, c.sharp, c.w, c.h, 1, c.kernel.width)};
    for (Score* acc : {&t.perKernel[c.kernelIndex], &t.mean}) {
      acc->psnr += s.psnr;
      acc->ssim += s.ssim;
    }
    for (Score* acc : {&t.blurredPerKernel[c.kernelIndex], &t.blurredMean}) {
      acc->psnr += b.psnr;
      acc->ssim += b.ssim;
    }
  }
  for (int k = 1; k <= 8; ++k) {
    t.perKernel[k].psnr /= 4;
    t.perKernel[k].ssim /= 4;
    t.blurredPerKernel[k].psnr /= 4;
    t.blurredPerKernel[k].ssim /= 4;
  }
  t.mean.psnr /= cases.size();
  t.mean.ssim /= cases.size();
  t.blurredMean.psnr /= cases.size();
  t.blurredMean.ssim /= cases.size();
  return t;
}

}  // namespace

int main(int argc, char** argv) {
  const std::string folder = argc > 1 ? argv[1] : "../shared/data/levin";
  try {
    const auto circular = MakeCases(folder, BlurBorder::kCircular);
    const auto replicated = MakeCases(folder, BlurBorder::kReplicated);
    double noise = argc > 2 ? std::atof(argv[2]) : 0.0;
    double weight = argc > 3 ? std::atof(argv[3]) : 1.0;
    if (argc <= 2) {
      std::printf("## Sweep on the circular set (mean PSNR dB / SSIM)\n\n| noise \\\\ weight |");
      const double noises[] = {0.05, 0.1, 0.2, 0.3, 0.5, 0.75, 1.0, 1.5};
      const double weights[] = {0.0, 1.0, 10.0};
      for (double w : weights) std::printf(" %g |", w);
      std::printf("\n|---|---|---|---|\n");
      double best = -1e9;
      for (double n : noises) {
        std::printf("| %g |", n);
        for (double w : weights) {
          const Table t = Run(circular, 0, n, w);
          std::printf(" %.2f / %.3f |", t.mean.psnr, t.mean.ssim);
          if (t.mean.psnr > best + 1e-9) {
            best = t.mean.psnr;
            noise = n;
            weight = w;
          }
        }
        std::printf("\n");
        std::fflush(stdout);
      }
      std::printf("\nBest pair: noise %g, weight %g\n\n", noise, weight);
    }
    const Table a = Run(circular, 0, noise, weight);
    const Table b0 = Run(replicated, 0, noise, weight);
    const Table b1 = Run(replicated, 1, noise, weight);
    std::printf("## Levin et al. set at noise %g, weight %g: PSNR dB / SSIM on the interior\n\n",
                noise, weight);
    std::printf(
        "| kernel | (a) circular: blurred | (a) boundary 0 | (b) replicated: blurred | "
        "(b) boundary 0 | (b) boundary 1 |\n|---|---|---|---|---|---|\n");
    for (int k = 1; k <= 9; ++k) {
      const bool all = k == 9;
      auto cell = [&](const Score& s) { std::printf(" %.2f / %.3f |", s.psnr, s.ssim); };
      std::printf("| %s |", all ? "**mean**" : std::to_string(k).c_str());
      cell(all ? a.blurredMean : a.blurredPerKernel[k]);
      cell(all ? a.mean : a.perKernel[k]);
      cell(all ? b0.blurredMean : b0.blurredPerKernel[k]);
      cell(all ? b0.mean : b0.perKernel[k]);
      cell(all ? b1.mean : b1.perKernel[k]);
      std::printf("\n");
    }
  } catch (const std::exception& e) {
    std::fprintf(stderr, "quality_bench: %s\n", e.what());
    return 1;
  }
  return 0;
}
