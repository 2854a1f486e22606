// What two options of the API cost or gain, measured through the API itself:
//
//  margins   exact against fast smooth margins, on the Levin et al. set and on photographs,
//            both blurred with replicated borders (1 % noise, 8-bit): mean PSNR of each and
//            the time of each run;
//  refine    deconvolution with a perturbed kernel (rotated by 4 degrees, stretched by 10 %),
//            with and without kernel refinement, on the Levin set blurred circularly with the
//            true kernel (1 % noise, 8-bit): mean PSNR of each, and with the true kernel.
//
// PSNR is taken on the interior (a kernel size cut off each side) at the best integer shift
// within 3 samples.
//
// Usage: options_bench margins|refine [levin folder, default ../shared/data/levin]
//        [photograph ...]
#include <algorithm>
#include <chrono>
#include <cmath>
#include <cstdio>
#include <fstream>
#include <numbers>
#include <sstream>
#include <stdexcept>
#include <string>
#include <vector>

#include "bench/synthesis.h"
#include "marlith/deconvolve.hpp"

namespace {

using Kernel = marlith::synthesis::TextKernel;
using marlith::synthesis::ReadKernelText;

namespace syn = marlith::synthesis;

// The kernel resampled (bilinearly) under a rotation by degrees and a stretch along the
// rotated x axis, about its centre sample, into a box large enough to hold it, normalised.
Kernel Perturbed(const Kernel& k, double degrees, double stretch) {
  const int size = static_cast<int>(std::ceil(std::max(k.width, k.height) * stretch * 1.5)) | 1;
  const double a = degrees * std::numbers::pi / 180.0, c = std::cos(a), s = std::sin(a);
  const double cx = k.width / 2, cy = k.height / 2, oc = size / 2;
  Kernel out{std::vector<double>(static_cast<size_t>(size) * size, 0.0), size, size};
  auto at = [&](int x, int y) {
    return x < 0 || y < 0 || x >= k.width || y >= k.height ? 0.0 : k.values[y * k.width + x];
  };
  double sum = 0.0;
  for (int y = 0; y < size; ++y)
    for (int x = 0; x < size; ++x) {
      // The kernel is stretched along x, then rotated; the inverse map unrotates, then
      // unstretches.
      const double u = x - oc, v = y - oc;
      const double sx = (c * u + s * v) / stretch + cx, sy = -s * u + c * v + cy;
      const int x0 = static_cast<int>(std::floor(sx)), y0 = static_cast<int>(std::floor(sy));
      const double fx = sx - x0, fy = sy - y0;
      const double value = (1 - fx) * (1 - fy) * at(x0, y0) + fx * (1 - fy) * at(x0 + 1, y0) +
                           (1 - fx) * fy * at(x0, y0 + 1) + fx * fy * at(x0 + 1, y0 + 1);
      out.values[y * size + x] = value;
      sum += value;
    }
  for (double& v : out.values) v /= sum;
  return out;
}

std::vector<double> Shifted(const std::vector<double>& p, int w, int h, int channels, int dx,
                            int dy) {
  std::vector<double> out(p.size());
  for (int c = 0; c < channels; ++c)
    for (int y = 0; y < h; ++y)
      for (int x = 0; x < w; ++x)
        out[(c * h + y) * w + x] =
            p[(c * h + std::clamp(y + dy, 0, h - 1)) * w + std::clamp(x + dx, 0, w - 1)];
  return out;
}

double AlignedPsnr(const std::vector<double>& restored, const std::vector<double>& sharp, int w,
                   int h, int channels, int margin) {
  double best = -1e9;
  for (int dy = -3; dy <= 3; ++dy)
    for (int dx = -3; dx <= 3; ++dx)
      best = std::max(best, syn::Psnr(Shifted(restored, w, h, channels, dx, dy), sharp, w, h,
                                      channels, margin));
  return best;
}

// A sharp image blurred with the kernel (centre sample as origin), 1 % noise, 8-bit.
std::vector<double> Observed(const syn::ImagePlanes& sharp, const Kernel& k, syn::BlurBorder b,
                             uint32_t seed) {
  auto planes = syn::Blur(sharp.planes, sharp.width, sharp.height, sharp.channels, k.values,
                          k.width, k.height, b);
  syn::AddGaussianNoise(planes, 0.01, seed);
  syn::QuantiseTo8Bit(planes);
  return planes;
}

struct Run {
  double psnr = 0.0, seconds = 0.0;
};

Run Restore(const syn::ImagePlanes& sharp, const std::vector<double>& observed, const Kernel& k,
            const marlith::DeconvolveOptions& options, int margin) {
  std::vector<double> out(observed.size());
  const auto start = std::chrono::steady_clock::now();
  marlith::Deconvolve(
      marlith::ConstImageView::Planar(observed.data(), sharp.width, sharp.height, sharp.channels),
      {k.values, k.width, k.height},
      marlith::ImageView::Planar(out.data(), sharp.width, sharp.height, sharp.channels), options);
  const double seconds =
      std::chrono::duration<double>(std::chrono::steady_clock::now() - start).count();
  return {AlignedPsnr(out, sharp.planes, sharp.width, sharp.height, sharp.channels, margin),
          seconds};
}

std::vector<syn::ImagePlanes> LevinImages(const std::string& folder) {
  std::vector<syn::ImagePlanes> images;
  for (int i = 1; i <= 4; ++i)
    images.push_back(syn::ReadImagePlanes(folder + "/im" + std::to_string(i) + ".png"));
  return images;
}

std::vector<Kernel> LevinKernels(const std::string& folder) {
  std::vector<Kernel> kernels;
  for (int i = 1; i <= 8; ++i)
    kernels.push_back(ReadKernelText(folder + "/kernel" + std::to_string(i) + ".txt"));
  return kernels;
}

void Margins(const std::string& folder, const std::vector<std::string>& photographs) {
  const auto kernels = LevinKernels(folder);
  std::vector<std::pair<std::string, std::vector<syn::ImagePlanes>>> sets{
      {"Levin (4 x 8)", LevinImages(folder)}, {"photographs", {}}};
  for (const auto& p : photographs) sets[1].second.push_back(syn::ReadImagePlanes(p));
  std::printf(
      "| set | runs | mean PSNR exact | mean PSNR fast | difference | time exact | time fast |\n");
  std::printf("|---|---|---|---|---|---|---|\n");
  for (const auto& [name, images] : sets) {
    if (images.empty()) continue;
    double pe = 0, pf = 0, te = 0, tf = 0;
    int runs = 0;
    uint32_t seed = 1;
    for (const auto& image : images)
      for (const auto& k : kernels) {
        const auto observed = Observed(image, k, syn::BlurBorder::kReplicated, seed++);
        marlith::DeconvolveOptions options;
        options.noise = 0.1;
        options.margins = marlith::Margins::kExact;
        const Run exact = Restore(image, observed, k, options, k.width);
        options.margins = marlith::Margins::kFast;
        const Run fast = Restore(image, observed, k, options, k.width);
        pe += exact.psnr, pf += fast.psnr, te += exact.seconds, tf += fast.seconds, ++runs;
      }
    std::printf("| %s | %d | %.3f dB | %.3f dB | %+.3f dB | %.2f s | %.2f s |\n", name.c_str(),
                runs, pe / runs, pf / runs, (pf - pe) / runs, te, tf);
    std::fflush(stdout);
  }
}

void Refine(const std::string& folder) {
  const auto images = LevinImages(folder);
  const auto kernels = LevinKernels(folder);
  struct Perturbation {
    const char* name;
    double degrees, stretch;
  };
  std::printf("| kernel given | mean PSNR without refinement | with refinement | gain |\n");
  std::printf("|---|---|---|---|\n");
  for (const Perturbation& p :
       {Perturbation{"true", 0.0, 1.0}, Perturbation{"rotated 4 deg", 4.0, 1.0},
        Perturbation{"stretched 10 %", 0.0, 1.1}}) {
    double without = 0, with = 0;
    int runs = 0;
    uint32_t seed = 100;
    for (const auto& image : images)
      for (const auto& k : kernels) {
        const auto observed = Observed(image, k, syn::BlurBorder::kCircular, seed++);
        const Kernel given =
            p.degrees == 0.0 && p.stretch == 1.0 ? k : Perturbed(k, p.degrees, p.stretch);
        marlith::DeconvolveOptions options;
        options.noise = 0.1;
        options.boundary = marlith::Boundary::kPeriodic;
        without += Restore(image, observed, given, options, k.width).psnr;
        options.refineKernel = true;
        with += Restore(image, observed, given, options, k.width).psnr;
        ++runs;
      }
    std::printf("| %s | %.3f dB | %.3f dB | %+.3f dB |\n", p.name, without / runs, with / runs,
                (with - without) / runs);
    std::fflush(stdout);
  }
}

}  // namespace

int main(int argc, char** argv) {
  if (argc < 2) {
    std::fprintf(stderr, "usage: options_bench margins|refine [levin folder] [photograph ...]\n");
    return 2;
  }
  const std::string mode = argv[1];
  const std::string folder = argc > 2 ? argv[2] : "../shared/data/levin";
  try {
    if (mode == "margins") {
      Margins(folder, std::vector<std::string>(argv + std::min(argc, 3), argv + argc));
    } else if (mode == "refine") {
      Refine(folder);
    } else {
      std::fprintf(stderr, "unknown mode %s\n", mode.c_str());
      return 2;
    }
  } catch (const std::exception& e) {
    std::fprintf(stderr, "options_bench: %s\n", e.what());
    return 1;
  }
  return 0;
}
