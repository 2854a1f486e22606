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

// PSNR of a against b over the band of the given width along the image border.
double BorderBandPsnr(const ImagePlanes& a, const ImagePlanes& b, int band) {
  double sum = 0.0;
  size_t count = 0;
  for (size_t i = 0; i < a.planes.size(); ++i) {
    const int x = i % a.width, y = i / a.width % a.height;
    if (x >= band && x < a.width - band && y >= band && y < a.height - band) continue;
    sum += (a.planes[i] - b.planes[i]) * (a.planes[i] - b.planes[i]);
    ++count;
  }
  return 10.0 * std::log10(count / sum);
}

TEST(DeblurFiles, RestoresTheExamplePhotographBlurredWithItsKernelPlusNoise) {
  // Blurred with the example kernel (circularly or with replicated borders), 0.5 % noise added,
  // quantised; restored by marlith with the given boundary type.
  struct Run {
    bool grey;
    BlurBorder border;
    const char* boundaryType;
    double minimumGain;  // dB over the blurred image
    double psnr = 0, band = 0;
  };
  Run runs[] = {{false, BlurBorder::kCircular, "0", 3.0},
                {true, BlurBorder::kCircular, "0", 3.0},
                {false, BlurBorder::kReplicated, "0", -HUGE_VAL},
                {false, BlurBorder::kReplicated, "1", 3.0}};
  const ImagePlanes colour = synthesis::ReadImagePlanes(SourceDir() / "examples/earth_sharp.png");
  const ImagePlanes kernelImage =
      synthesis::ReadImagePlanes(SourceDir() / "examples/motion_kernel.png");
  const int W = colour.width, H = colour.height, kw = kernelImage.width, kh = kernelImage.height;
  std::vector<double> kernel(kernelImage.planes.begin(), kernelImage.planes.begin() + kw * kh);
  double sum = 0.0;
  for (double v : kernel) sum += v;
  for (double& v : kernel) v /= sum;
  for (Run& run : runs) {
    TempDir dir;
    ImagePlanes sharp = colour;
    if (run.grey) {
      sharp = {std::vector<double>(W * H), W, H, 1};
      for (int i = 0; i < W * H; ++i)
        sharp.planes[i] = 0.299 * colour.planes[i] + 0.587 * colour.planes[W * H + i] +
                          0.114 * colour.planes[2 * W * H + i];
    }
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
    run.band = BorderBandPsnr(restored, sharp, kw);  // one kernel width
    std::printf("%s, %s blur, boundary %s: PSNR %.2f dB -> %.2f dB, border band %.2f dB\n",
                run.grey ? "grey" : "colour",
                run.border == BlurBorder::kCircular ? "circular" : "replicated", run.boundaryType,
                before, run.psnr, run.band);
    EXPECT_GE(run.psnr, before + run.minimumGain) << run.grey << " " << run.boundaryType;
  }
  // A photograph is not periodic: blurred with replicated borders, a periodic solve rings at
  // the edges, and the smooth periodic margins of a non-zero boundary type avoid that.
  EXPECT_GT(runs[3].band, runs[2].band + 1.0);
  EXPECT_GT(runs[3].psnr, runs[2].psnr);
}

}  // namespace
}  // namespace marlith::test
