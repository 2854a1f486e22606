#include "plane/plane_padding.h"

#include <algorithm>
#include <cassert>
#include <cmath>
#include <cstring>

#include "plane/fftw_plan.h"

namespace marlith {
namespace {

// Copies h rows of w values into a zero W x H plane with the source's (0,0) at (x0, y0).
std::vector<double> placeInZeroPlane(std::span<const double> plane, int w, int h, int W, int H,
                                     int x0, int y0) {
  assert(w <= W && h <= H && plane.size() >= static_cast<size_t>(w) * h);
  std::vector<double> out(static_cast<size_t>(W) * H, 0.0);
  for (int y = 0; y < h; ++y) {
    std::copy_n(plane.data() + static_cast<size_t>(y) * w, w,
                out.data() + static_cast<size_t>(y + y0) * W + x0);
  }
  return out;
}

}  // namespace

std::vector<double> PadCenteredUp(std::span<const double> plane, int w, int h, int W, int H) {
  // Unsigned halving, as the margins are never negative here.
  const int x0 = static_cast<int>(static_cast<unsigned>(W - w + 1) / 2u);
  const int y0 = static_cast<int>(static_cast<unsigned>(H - h + 1) / 2u);
  return placeInZeroPlane(plane, w, h, W, H, x0, y0);
}

std::vector<double> PadCenteredUp(std::vector<double>&& plane, int w, int h, int W, int H) {
  std::vector<double> source = std::move(plane);
  return PadCenteredUp(std::span<const double>(source), w, h, W, H);
}

std::vector<double> PadCenteredDown(std::span<const double> plane, int w, int h, int W, int H) {
  const int x0 = static_cast<int>(static_cast<unsigned>(W - w) / 2u);
  const int y0 = static_cast<int>(static_cast<unsigned>(H - h) / 2u);
  return placeInZeroPlane(plane, w, h, W, H, x0, y0);
}

std::vector<double> PadCenteredDown(std::vector<double>&& plane, int w, int h, int W, int H) {
  std::vector<double> source = std::move(plane);
  return PadCenteredDown(std::span<const double>(source), w, h, W, H);
}

CroppedKernel CropKernelToSupport(std::span<const double> kernel, int width, int height) {
  double m = 0.0;
  for (double v : kernel.first(static_cast<size_t>(width) * height)) m = std::max(m, v);
  const double t = m / 255.0;
  int minX = width, maxX = 0, minY = height, maxY = 0;
  for (int y = 0; y < height; ++y) {
    for (int x = 0; x < width; ++x) {
      if (kernel[static_cast<size_t>(y) * width + x] > t) {
        minX = std::min(minX, x);
        maxX = std::max(maxX, x);
        minY = std::min(minY, y);
        maxY = std::max(maxY, y);
      }
    }
  }
  assert(minX <= maxX && minY <= maxY && "kernel without a positive finite maximum");
  CroppedKernel out;
  out.width = maxX - minX + 1;
  out.height = maxY - minY + 1;
  out.values.resize(static_cast<size_t>(out.width) * out.height);
  for (int y = 0; y < out.height; ++y) {
    std::copy_n(kernel.data() + static_cast<size_t>(y + minY) * width + minX, out.width,
                out.values.data() + static_cast<size_t>(y) * out.width);
  }
  return out;
}

std::vector<double> MakeGaussianKernel(int width, int height, double sigma) {
  std::vector<double> k(static_cast<size_t>(width) * height);
  const double cx = (width - 1) * 0.5;
  const double cy = (height - 1) * 0.5;
  double sum = 0.0;
  for (int y = 0; y < height; ++y) {
    for (int x = 0; x < width; ++x) {
      const double dx = x - cx, dy = y - cy;
      const double v = std::exp((dx * dx + dy * dy) / (-2.0 * sigma * sigma));
      k[static_cast<size_t>(y) * width + x] = v;
      sum += v;
    }
  }
  for (double& v : k) v /= sum;
  return k;
}

std::vector<double> MakeBoxKernel(int width, int height) {
  return std::vector<double>(static_cast<size_t>(width) * height, 1.0 / (width * height));
}

std::vector<double> MakePaddedGaussianKernel(int width, int height, double sigma, int W, int H) {
  return PadCenteredUp(MakeGaussianKernel(width, height, sigma), width, height, W, H);
}

std::vector<double> MakePaddedBoxKernel(int width, int height, int W, int H) {
  return PadCenteredUp(MakeBoxKernel(width, height), width, height, W, H);
}

std::vector<double> MakeDxFilter(int W, int H) {
  return PadCenteredUp(std::vector<double>{1.0, -1.0}, 2, 1, W, H);
}

std::vector<double> MakeDyFilter(int W, int H) {
  return PadCenteredUp(std::vector<double>{1.0, -1.0}, 1, 2, W, H);
}

EvenSizeWork MakeEvenSizeWork(const DeconvRequest& request) {
  EvenSizeWork work;
  work.input = std::span<const double>(
      request.input, static_cast<size_t>(request.width) * request.height * request.channels);
  work.width = request.width;
  work.height = request.height;
  work.channels = request.channels;
  work.marginWidth = request.kernelWidth;
  work.marginHeight = request.kernelHeight;
  work.boundaryType = request.boundaryType;
  return work;
}

void ExtendToEvenSize(EvenSizeWork& work) {
  const int w = work.width, h = work.height;
  const int W = w + (w & 1), H = h + (h & 1);
  work.workWidth = W;
  work.workHeight = H;
  const size_t plane = static_cast<size_t>(W) * H;
  work.planes = NewPlane(plane * work.channels);
  for (int c = 0; c < work.channels; ++c) {
    const double* src = work.input.data() + static_cast<size_t>(c) * w * h;
    double* dst = work.planes.data() + c * plane;
    for (int y = 0; y < h; ++y) {
      double* row = dst + static_cast<size_t>(y) * W;
      std::copy_n(src + static_cast<size_t>(y) * w, w, row);
      if (W != w) row[w] = row[w - 1];
    }
    if (H != h)
      std::copy_n(dst + static_cast<size_t>(h - 1) * W, W, dst + static_cast<size_t>(h) * W);
  }
}

void CropCenteredBack(std::span<const double> workPlanes, int workWidth, int workHeight, int width,
                      int height, int channels, std::span<double> output) {
  const int x0 = (workWidth - width) / 2;
  const int y0 = (workHeight - height) / 2;
  const size_t workPlane = static_cast<size_t>(workWidth) * workHeight;
  const size_t outPlane = static_cast<size_t>(width) * height;
  assert(output.size() >= outPlane * channels && workPlanes.size() >= workPlane * channels);
  for (int c = 0; c < channels; ++c) {
    for (int y = 0; y < height; ++y) {
      std::copy_n(workPlanes.data() + c * workPlane + static_cast<size_t>(y + y0) * workWidth + x0,
                  width, output.data() + c * outPlane + static_cast<size_t>(y) * width);
    }
  }
}

}  // namespace marlith
