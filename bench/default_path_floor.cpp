// The transform floor of the default road: runs the options API on an image file with
// marlith-deblur's defaults for it (smooth borders, fast margins, sRGB tone curve, clipped at
// full scale, automatic strength unless given) and prints one line
//
//   rounds R working W H pair P floor F seconds S
//
// R: the split solver's inner rounds over all channels; W x H: its working plane; P: the best of
// 15 in-place forward + inverse transform pairs of that plane (the solver's own VolumeTransform,
// same threads); F = R x 2 x P, since an inner round transforms two planes each way; S: the
// Deconvolve call alone (read planes to written planes).
//
// Usage: default_path_floor image kernel [noise strength] [threads]
#include <algorithm>
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <exception>
#include <string>

#include "image/image_io.h"
#include "image/kernel_file.h"
#include "marlith/deconvolve.hpp"
#include "plane/volume_transform.h"
#include "plane/worker_pool.h"

namespace {

using Clock = std::chrono::steady_clock;

double Since(Clock::time_point t0) {
  return std::chrono::duration<double>(Clock::now() - t0).count();
}

double TransformPair(int width, int height, int threads) {
  const marlith::VolumeSize size{width, height, 1};
  marlith::VolumeTransform transform(size, marlith::ResolveThreads(threads));
  auto data = marlith::AllocateFftwBuffer<double>(size.PaddedSamples());
  for (size_t i = 0; i < size.PaddedSamples(); ++i) data[i] = static_cast<double>(i % 251) / 251.0;
  double best = 1e300;
  for (int rep = 0; rep < 15; ++rep) {
    const auto t0 = Clock::now();
    transform.Forward(data.get());
    transform.Inverse(data.get());
    best = std::min(best, Since(t0));
    for (size_t i = 0; i < size.PaddedSamples(); ++i)
      data[i] /= static_cast<double>(size.Samples());
  }
  return best;
}

}  // namespace

int main(int argc, char** argv) {
  if (argc < 3) {
    std::fprintf(stderr, "usage: default_path_floor image kernel [noise] [threads]\n");
    return 2;
  }
  try {
    const marlith::LoadedImage image = marlith::ReadImageFile(argv[1]);
    const marlith::KernelFile kernel = marlith::ReadKernelFile(argv[2]);
    marlith::DeconvolveOptions options;
    if (argc > 3 && std::string(argv[3]) != "auto") options.noise = std::atof(argv[3]);
    options.threads = argc > 4 ? std::atoi(argv[4]) : 0;
    options.colorspace = marlith::Colorspace::kSrgb;
    options.clipLevel = 1.0;
    const int channels = image.colourChannels;
    std::vector<double> out(static_cast<size_t>(image.width) * image.height * channels);
    const auto t0 = Clock::now();
    const marlith::DeconvolveReport report = marlith::Deconvolve(
        marlith::ConstImageView::Planar(image.planes.data(), image.width, image.height, channels),
        {kernel.values, kernel.width, kernel.height},
        marlith::ImageView::Planar(out.data(), image.width, image.height, channels), options);
    const double seconds = Since(t0);
    const double pair = TransformPair(report.workingWidth, report.workingHeight, options.threads);
    std::printf("rounds %d working %d %d pair %.6f floor %.4f seconds %.4f strength %.6g\n",
                report.innerRounds, report.workingWidth, report.workingHeight, pair,
                report.innerRounds * 2.0 * pair, seconds, report.noiseStrength);
  } catch (const std::exception& e) {
    std::fprintf(stderr, "default_path_floor: %s\n", e.what());
    return 1;
  }
  return 0;
}
