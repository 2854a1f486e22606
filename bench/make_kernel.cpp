// Draws a camera-shake kernel image of a given size: a curved path, brighter where the camera
// lingered, scaled to fill the square. Usage: marlith-kernel size out.png
#include <cmath>
#include <cstdio>
#include <cstdlib>
#include <exception>

#include "bench/synthesis.h"

int main(int argc, char** argv) {
  if (argc < 3) {
    std::fprintf(stderr, "usage: marlith-kernel size out.png\n");
    return 2;
  }
  const int n = std::atoi(argv[1]);
  if (n < 3 || n > 1001) {
    std::fprintf(stderr, "marlith-kernel: size must be 3 to 1001\n");
    return 2;
  }
  marlith::synthesis::ImagePlanes k{std::vector<double>(static_cast<size_t>(n) * n, 0.0), n, n, 1};
  const double scale = (n - 3) / 14.0;  // the path is drawn on a 17-sample square and scaled
  const int steps = 40 * n;
  for (int i = 0; i < steps; ++i) {
    const double s = static_cast<double>(i) / (steps - 1);
    const double angle = M_PI * 0.9 * s;
    const double x = 1 + scale * (2 + 9 * std::sin(angle) * 0.9 + 2.5 * s);
    const double y = 1 + scale * (11 - 8 * s + 2.0 * std::sin(2 * angle));
    const double weight = 1.6 - 0.9 * s;
    const int x0 = static_cast<int>(std::floor(x)), y0 = static_cast<int>(std::floor(y));
    const double fx = x - x0, fy = y - y0;
    const double w[4] = {(1 - fx) * (1 - fy), fx * (1 - fy), (1 - fx) * fy, fx * fy};
    for (int j = 0; j < 4; ++j) {
      const int px = x0 + (j & 1), py = y0 + (j >> 1);
      if (px >= 0 && px < n && py >= 0 && py < n)
        k.planes[static_cast<size_t>(py) * n + px] += weight * w[j];
    }
  }
  double peak = 0.0;
  for (double v : k.planes) peak = std::max(peak, v);
  for (double& v : k.planes) v /= peak;
  try {
    marlith::synthesis::WriteImagePlanes(argv[2], k);
  } catch (const std::exception& e) {
    std::fprintf(stderr, "marlith-kernel: %s\n", e.what());
    return 1;
  }
  return 0;
}
