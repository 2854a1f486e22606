// Blurs an image with a kernel image and adds noise: test and benchmark inputs with a known
// answer. Usage: marlith-blur sharp kernel out [circular|replicated] [noise sigma] [seed]
// The kernel is read from its grey (red) levels and normalised to unit sum; noise is on the
// [0, 1] scale (0.01 is 1 % of the range).
#include <cstdio>
#include <cstdlib>
#include <exception>
#include <numeric>
#include <string>

#include "bench/synthesis.h"

int main(int argc, char** argv) {
  using namespace marlith::synthesis;
  if (argc < 4) {
    std::fprintf(stderr,
                 "usage: marlith-blur sharp kernel out [circular|replicated] [noise] [seed]\n");
    return 2;
  }
  try {
    ImagePlanes sharp = ReadImagePlanes(argv[1]);
    const ImagePlanes kernelImage = ReadImagePlanes(argv[2]);
    const std::string mode = argc > 4 ? argv[4] : "replicated";
    if (mode != "circular" && mode != "replicated") {
      std::fprintf(stderr, "marlith-blur: border must be circular or replicated, not %s\n",
                   mode.c_str());
      return 2;
    }
    const double sigma = argc > 5 ? std::atof(argv[5]) : 0.0;
    const uint32_t seed = argc > 6 ? static_cast<uint32_t>(std::atol(argv[6])) : 1;
    const size_t kernelSize = static_cast<size_t>(kernelImage.width) * kernelImage.height;
    std::vector<double> kernel(kernelImage.planes.begin(), kernelImage.planes.begin() + kernelSize);
    const double sum = std::accumulate(kernel.begin(), kernel.end(), 0.0);
    for (double& v : kernel) v /= sum;
    ImagePlanes blurred = sharp;
    blurred.planes = Blur(sharp.planes, sharp.width, sharp.height, sharp.channels, kernel,
                          kernelImage.width, kernelImage.height,
                          mode == "circular" ? BlurBorder::kCircular : BlurBorder::kReplicated);
    if (sigma > 0.0) AddGaussianNoise(blurred.planes, sigma, seed);
    WriteImagePlanes(argv[3], blurred);
  } catch (const std::exception& e) {
    std::fprintf(stderr, "marlith-blur: %s\n", e.what());
    return 1;
  }
  return 0;
}
