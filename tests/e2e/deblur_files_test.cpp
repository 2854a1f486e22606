// The real executable on real image files: a known blur in, a sharper image out.
#include <gtest/gtest.h>

#include <cmath>
#include <cstdio>
#include <numeric>

#include "bench/synthesis.h"
#include "support/test_support.h"

namespace marlith::test {
namespace {

using synthesis::ImagePlanes;

TEST(DeblurFiles, RestoresTheExamplePhotographBlurredWithItsKernelPlusNoise) {
  // Blurred with the example kernel and replicated borders, 0.5 % noise added, quantised;
  // restored by marlith taking it as periodic (boundary type 0) and with smooth margins (1).
  const ImagePlanes sharp = synthesis::ReadImagePlanes(SourceDir() / "examples/earth_sharp.png");
  const ImagePlanes kernelImage =
      synthesis::ReadImagePlanes(SourceDir() / "examples/motion_kernel.png");
  const int W = sharp.width, H = sharp.height, kw = kernelImage.width, kh = kernelImage.height;
  std::vector<double> kernel(kernelImage.planes.begin(), kernelImage.planes.begin() + kw * kh);
  const double sum = std::accumulate(kernel.begin(), kernel.end(), 0.0);
  for (double& v : kernel) v /= sum;
  TempDir dir;
  ImagePlanes blurred = sharp;
  blurred.planes = synthesis::Blur(sharp.planes, W, H, sharp.channels, kernel, kw, kh,
                                   synthesis::BlurBorder::kReplicated);
  synthesis::AddGaussianNoise(blurred.planes, 0.005, 42);
  synthesis::QuantiseTo8Bit(blurred.planes);
  synthesis::WriteImagePlanes(dir / "blurred.png", blurred);
  synthesis::WriteImagePlanes(dir / "kernel.png", kernelImage);
  const double before = synthesis::Psnr(blurred.planes, sharp.planes, W, H, sharp.channels);
  double psnr[2], band[2];  // over the whole image, and along its border one kernel width deep
  for (int boundary : {0, 1}) {
    const ProcessResult r = RunProcess(MarlithExe(), {dir / "blurred.png", dir / "kernel.png",
                                                      dir / "out.png", std::to_string(boundary),
                                                      "1", "1"});
    ASSERT_EQ(r.exitCode, 0) << r.out << r.err;
    const ImagePlanes restored = synthesis::ReadImagePlanes(dir / "out.png");
    ASSERT_EQ(restored.channels * 100000 + restored.width, sharp.channels * 100000 + W);
    psnr[boundary] = synthesis::Psnr(restored.planes, sharp.planes, W, H, sharp.channels);
    double error = 0.0;
    size_t count = 0;
    for (size_t i = 0; i < restored.planes.size(); ++i) {
      const int x = i % W, y = i / W % H;
      if (x >= kw && x < W - kw && y >= kw && y < H - kw) continue;
      error += (restored.planes[i] - sharp.planes[i]) * (restored.planes[i] - sharp.planes[i]);
      ++count;
    }
    band[boundary] = 10.0 * std::log10(count / error);
    std::printf("boundary %d: PSNR %.2f dB -> %.2f dB, border band %.2f dB\n", boundary, before,
                psnr[boundary], band[boundary]);
  }
  EXPECT_GE(psnr[1], before + 3.0);
  // A photograph is not periodic: a periodic solve rings at the edges, and the smooth periodic
  // margins of a non-zero boundary type avoid that.
  EXPECT_GT(band[1], band[0] + 1.0);
  EXPECT_GT(psnr[1], psnr[0]);
}

}  // namespace
}  // namespace marlith::test
