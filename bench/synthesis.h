// Synthetic blur, noise and quality measures for benchmarks, examples and end-to-end tests.
#pragma once

#include <cstdint>
#include <span>
#include <string>
#include <vector>

#include "image/image_planes.h"

namespace marlith::synthesis {

// How a blur treats samples outside the image.
enum class BlurBorder {
  kCircular,    // the image repeats periodically (what the FFT solver assumes)
  kReplicated,  // edge samples extend outward (closer to a real photograph's borders)
};

// Convolves each width x height channel plane with a kw x kh kernel whose tap (kw / 2, kh / 2)
// sits on the output sample: out(p) = sum_j k(j) in(p - (j - centre)).
std::vector<double> Blur(std::span<const double> planes, int width, int height, int channels,
                         std::span<const double> kernel, int kw, int kh, BlurBorder border);

// Adds white Gaussian noise of the given standard deviation (a fixed seed gives a fixed result).
void AddGaussianNoise(std::span<double> planes, double sigma, uint32_t seed);

// Rounds to the 8-bit grid an image file holds: round(clamp(v, 0, 1) x 255) / 255.
void QuantiseTo8Bit(std::span<double> planes);

// PSNR in dB on the [0, 1] scale over each channel's interior (margin samples cut off each side).
double Psnr(std::span<const double> a, std::span<const double> b, int width, int height,
            int channels = 1, int margin = 0);

// Mean SSIM (Gaussian window, sigma 1.5, constants for the [0, 1] scale) over the interior.
double Ssim(std::span<const double> a, std::span<const double> b, int width, int height,
            int channels = 1, int margin = 0);

}  // namespace marlith::synthesis

namespace marlith::synthesis {

using marlith::ImagePlanes;

// A blur kernel read from a text matrix (rows of numbers separated by white space), normalised
// to unit sum. Throws std::runtime_error when the file cannot be read or holds no numbers.
struct TextKernel {
  std::vector<double> values;
  int width = 0;
  int height = 0;
};
TextKernel ReadKernelText(const std::string& path);

// Reads an image file with GraphicsMagick, independently of marlith's own image layer:
// grey images give one plane, colour images three. Throws std::runtime_error on failure.
ImagePlanes ReadImagePlanes(const std::string& path);

// Writes planes as an 8-bit image (format from the name's extension), each sample rounded to
// the nearest of the 256 levels after clamping to [0, 1]. One channel gives a grey image.
void WriteImagePlanes(const std::string& path, const ImagePlanes& image);

}  // namespace marlith::synthesis
