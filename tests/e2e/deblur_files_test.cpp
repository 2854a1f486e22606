// The real executable on real image files: a known blur in, a sharper image out.
#include <gtest/gtest.h>

#include <cmath>
#include <cstdio>

#include "bench/synthesis.h"
#include "support/test_support.h"

namespace marlith::test {
namespace {

using synthesis::BlurBorder;
using synthesis::ImagePlanes;

TEST(DeblurFiles, RestoresTheExamplePhotographBlurredWithItsKernelPlusNoise) {
  // Blurred with the example kernel (circularly or with replicated borders), 0.5 % noise added,
  // quantised; restored by marlith with the given boundary type.
  struct Run {
    BlurBorder border;
    const char* boundaryType;
    double minimumGain;  // dB over the blurred image
    double psnr = 0, band = 0;
  };
  // (Grey images take the same road through the solver; the bad-input runs restore grey ones.)
  Run runs[] = {{BlurBorder::kCircular, "0", 3.0},
                {BlurBorder::kReplicated, "0", -HUGE_VAL},
                {BlurBorder::kReplicated, "1", 3.0}};
  const ImagePlanes sharp = synthesis::ReadImagePlanes(SourceDir() / "examples/earth_sharp.png");
  const ImagePlanes kernelImage =
      synthesis::ReadImagePlanes(SourceDir() / "examples/motion_kernel.png");
  const int W = sharp.width, H = sharp.height, kw = kernelImage.width, kh = kernelImage.height;
  std::vector<double> kernel(kernelImage.planes.begin(), kernelImage.planes.begin() + kw * kh);
  double sum = 0.0;
  for (double v : kernel) sum += v;
  for (double& v : kernel) v /= sum;
  for (Run& run : runs) {
    TempDir dir;
    ImagePlanes blurred = sharp;
    blurred.planes =
        synthesis::Blur(sharp.planes, W, H, sharp.channels, kernel, kw, kh, run.border);
    synthesis::AddGaussianNoise(blurred.planes, 0.005, 42);
    synthesis::QuantiseTo8Bit(blurred.planes);
    synthesis::WriteImagePlanes(dir / "blurred.png", blurred);
    synthesis::WriteImagePlanes(dir / "kernel.png", kernelImage);
    const ProcessResult r = RunProcess(MarlithExe(), {dir / "blurred.png", dir / "kernel.png",
                                                      dir / "out.png", run.boundaryType, "1", "1"});
    ASSERT_EQ(r.exitCode, 0) << r.out << r.err;
    const ImagePlanes restored = synthesis::ReadImagePlanes(dir / "out.png");
    ASSERT_EQ(restored.channels * 100000 + restored.width, sharp.channels * 100000 + W);
    const double before = synthesis::Psnr(blurred.planes, sharp.planes, W, H, sharp.channels);
    run.psnr = synthesis::Psnr(restored.planes, sharp.planes, W, H, sharp.channels);
    double band = 0.0;  // squared error along the border, one kernel width deep
    size_t count = 0;
    for (size_t i = 0; i < restored.planes.size(); ++i) {
      const int x = i % W, y = i / W % H;
      if (x >= kw && x < W - kw && y >= kw && y < H - kw) continue;
      band += (restored.planes[i] - sharp.planes[i]) * (restored.planes[i] - sharp.planes[i]);
      ++count;
    }
    run.band = 10.0 * std::log10(count / band);
    std::printf("%s blur, boundary %s: PSNR %.2f dB -> %.2f dB, border band %.2f dB\n",
                run.border == BlurBorder::kCircular ? "circular" : "replicated", run.boundaryType,
                before, run.psnr, run.band);
    EXPECT_GE(run.psnr, before + run.minimumGain) << run.boundaryType;
  }
  // A photograph is not periodic: blurred with replicated borders, a periodic solve rings at
  // the edges, and the smooth periodic margins of a non-zero boundary type avoid that.
  EXPECT_GT(runs[2].band, runs[1].band + 1.0);
  EXPECT_GT(runs[2].psnr, runs[1].psnr);
}

}  // namespace
}  // namespace marlith::test
