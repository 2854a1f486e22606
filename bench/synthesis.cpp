#include "bench/synthesis.h"

#include <algorithm>
#include <cmath>
#include <fstream>
#include <random>
#include <sstream>
#include <stdexcept>

namespace marlith::synthesis {

std::vector<double> Blur(std::span<const double> planes, int width, int height, int channels,
                         std::span<const double> kernel, int kw, int kh, BlurBorder border) {
  std::vector<double> out(planes.size(), 0.0);
  const size_t planeSize = static_cast<size_t>(width) * height;
  auto wrap = [](int i, int n) { return ((i % n) + n) % n; };
  auto clamp = [](int i, int n) { return std::clamp(i, 0, n - 1); };
  for (int c = 0; c < channels; ++c) {
    const double* in = planes.data() + c * planeSize;
    double* o = out.data() + c * planeSize;
    for (int j = 0; j < kh; ++j) {
      for (int i = 0; i < kw; ++i) {
        const double k = kernel[static_cast<size_t>(j) * kw + i];
        if (k == 0.0) continue;
        const int dx = i - kw / 2, dy = j - kh / 2;
        for (int y = 0; y < height; ++y) {
          const int sy =
              border == BlurBorder::kCircular ? wrap(y - dy, height) : clamp(y - dy, height);
          const double* row = in + static_cast<size_t>(sy) * width;
          double* orow = o + static_cast<size_t>(y) * width;
          for (int x = 0; x < width; ++x) {
            const int sx =
                border == BlurBorder::kCircular ? wrap(x - dx, width) : clamp(x - dx, width);
            orow[x] += k * row[sx];
          }
        }
      }
    }
  }
  return out;
}

void AddGaussianNoise(std::span<double> planes, double sigma, uint32_t seed) {
  std::mt19937_64 rng(seed);
  std::normal_distribution<double> noise(0.0, sigma);
  for (double& v : planes) v += noise(rng);
}

void QuantiseTo8Bit(std::span<double> planes) {
  for (double& v : planes) v = std::round(std::clamp(v, 0.0, 1.0) * 255.0) / 255.0;
}

double Psnr(std::span<const double> a, std::span<const double> b, int width, int height,
            int channels, int margin) {
  double sum = 0.0;
  size_t count = 0;
  for (int c = 0; c < channels; ++c)
    for (int y = margin; y < height - margin; ++y)
      for (int x = margin; x < width - margin; ++x) {
        const size_t i = (static_cast<size_t>(c) * height + y) * width + x;
        const double d = a[i] - b[i];
        sum += d * d;
        ++count;
      }
  return 10.0 * std::log10(static_cast<double>(count) / sum);
}

double Ssim(std::span<const double> a, std::span<const double> b, int width, int height,
            int channels, int margin) {
  // Wang et al. 2004: 11 x 11 Gaussian window, sigma 1.5, C1 = (0.01)^2, C2 = (0.03)^2.
  constexpr int kRadius = 5;
  constexpr double kC1 = 0.0001, kC2 = 0.0009;
  double window[2 * kRadius + 1];
  double wsum = 0.0;
  for (int i = -kRadius; i <= kRadius; ++i) wsum += window[i + kRadius] = std::exp(-i * i / 4.5);
  for (double& w : window) w /= wsum;
  const size_t planeSize = static_cast<size_t>(width) * height;
  // Separable local means of a, b, a^2, b^2, ab.
  auto smooth = [&](const std::vector<double>& in) {
    std::vector<double> tmp(planeSize), out(planeSize);
    for (int y = 0; y < height; ++y)
      for (int x = 0; x < width; ++x) {
        double s = 0.0;
        for (int i = -kRadius; i <= kRadius; ++i)
          s += window[i + kRadius] *
               in[y * static_cast<size_t>(width) + std::clamp(x + i, 0, width - 1)];
        tmp[y * static_cast<size_t>(width) + x] = s;
      }
    for (int y = 0; y < height; ++y)
      for (int x = 0; x < width; ++x) {
        double s = 0.0;
        for (int i = -kRadius; i <= kRadius; ++i)
          s += window[i + kRadius] *
               tmp[std::clamp(y + i, 0, height - 1) * static_cast<size_t>(width) + x];
        out[y * static_cast<size_t>(width) + x] = s;
      }
    return out;
  };
  double total = 0.0;
  size_t count = 0;
  for (int c = 0; c < channels; ++c) {
    std::vector<double> pa(a.begin() + c * planeSize, a.begin() + (c + 1) * planeSize);
    std::vector<double> pb(b.begin() + c * planeSize, b.begin() + (c + 1) * planeSize);
    std::vector<double> aa(planeSize), bb(planeSize), ab(planeSize);
    for (size_t i = 0; i < planeSize; ++i) {
      aa[i] = pa[i] * pa[i];
      bb[i] = pb[i] * pb[i];
      ab[i] = pa[i] * pb[i];
    }
    const auto ma = smooth(pa), mb = smooth(pb), saa = smooth(aa), sbb = smooth(bb),
               sab = smooth(ab);
    for (int y = margin; y < height - margin; ++y)
      for (int x = margin; x < width - margin; ++x) {
        const size_t i = static_cast<size_t>(y) * width + x;
        const double va = saa[i] - ma[i] * ma[i], vb = sbb[i] - mb[i] * mb[i];
        const double cov = sab[i] - ma[i] * mb[i];
        total += ((2 * ma[i] * mb[i] + kC1) * (2 * cov + kC2)) /
                 ((ma[i] * ma[i] + mb[i] * mb[i] + kC1) * (va + vb + kC2));
        ++count;
      }
  }
  return total / static_cast<double>(count);
}

}  // namespace marlith::synthesis

#include <Magick++.h>

#include <mutex>
#include <stdexcept>

namespace marlith::synthesis {
namespace {

void InitialiseMagick() {
  static std::once_flag once;
  std::call_once(once, [] { Magick::InitializeMagick(nullptr); });
}

}  // namespace

ImagePlanes ReadImagePlanes(const std::string& path) {
  InitialiseMagick();
  Magick::Image image;
  try {
    image.read(path);
  } catch (const Magick::Warning&) {
    // Decoded with a warning: usable.
  } catch (const Magick::Exception& e) {
    throw std::runtime_error("cannot read " + path + ": " + e.what());
  }
  ImagePlanes out;
  out.width = static_cast<int>(image.columns());
  out.height = static_cast<int>(image.rows());
  const bool grey = image.type() == Magick::GrayscaleType || image.type() == Magick::BilevelType ||
                    image.type() == Magick::GrayscaleMatteType;
  out.channels = grey ? 1 : 3;
  const size_t planeSize = static_cast<size_t>(out.width) * out.height;
  out.planes.resize(planeSize * out.channels);
  const Magick::PixelPacket* pixels = image.getConstPixels(0, 0, out.width, out.height);
  for (size_t i = 0; i < planeSize; ++i) {
    const double scale = 1.0 / MaxRGB;
    out.planes[i] = pixels[i].red * scale;
    if (out.channels == 3) {
      out.planes[planeSize + i] = pixels[i].green * scale;
      out.planes[2 * planeSize + i] = pixels[i].blue * scale;
    }
  }
  return out;
}

void WriteImagePlanes(const std::string& path, const ImagePlanes& in) {
  InitialiseMagick();
  Magick::Image image(Magick::Geometry(in.width, in.height), Magick::Color(0, 0, 0));
  image.modifyImage();
  image.classType(Magick::DirectClass);
  Magick::PixelPacket* pixels = image.getPixels(0, 0, in.width, in.height);
  const size_t planeSize = static_cast<size_t>(in.width) * in.height;
  auto level = [](double v) {
    const double byte = std::round(std::clamp(v, 0.0, 1.0) * 255.0);
    return static_cast<Magick::Quantum>(byte * (MaxRGB / 255));
  };
  for (size_t i = 0; i < planeSize; ++i) {
    const Magick::Quantum r = level(in.planes[i]);
    pixels[i].red = r;
    pixels[i].green = in.channels == 3 ? level(in.planes[planeSize + i]) : r;
    pixels[i].blue = in.channels == 3 ? level(in.planes[2 * planeSize + i]) : r;
    pixels[i].opacity = 0;
  }
  image.syncPixels();
  // Only now: setting the type earlier would leave a one-colour palette behind the pixels.
  image.type(in.channels == 1 ? Magick::GrayscaleType : Magick::TrueColorType);
  image.depth(8);
  try {
    image.write(path);
  } catch (const Magick::Warning&) {
  } catch (const Magick::Exception& e) {
    throw std::runtime_error("cannot write " + path + ": " + e.what());
  }
}

TextKernel ReadKernelText(const std::string& path) {
  std::ifstream in(path);
  if (!in) throw std::runtime_error("cannot read " + path);
  TextKernel k;
  std::string line;
  while (std::getline(in, line)) {
    std::istringstream row(line);
    double v;
    int count = 0;
    while (row >> v) k.values.push_back(v), ++count;
    if (count) k.width = count, ++k.height;
  }
  double sum = 0.0;
  for (double v : k.values) sum += v;
  if (k.values.empty() || !(sum > 0.0)) throw std::runtime_error("no kernel in " + path);
  for (double& v : k.values) v /= sum;
  return k;
}

}  // namespace marlith::synthesis
