// The real executable on real image files: a known blur in, a sharper image out.
#include <gtest/gtest.h>

#include <cmath>
#include <cstdio>

#include "bench/synthesis.h"
#include "support/test_support.h"

namespace marlith::test {
namespace {

using synthesis::ImagePlanes;

ImagePlanes ExampleSharp() {
  return synthesis::ReadImagePlanes((SourceDir() / "examples/earth_sharp.png").string());
}

ImagePlanes ToGrey(const ImagePlanes& colour) {
  const size_t n = static_cast<size_t>(colour.width) * colour.height;
  ImagePlanes grey{std::vector<double>(n), colour.width, colour.height, 1};
  for (size_t i = 0; i < n; ++i)
    grey.planes[i] =
        0.299 * colour.planes[i] + 0.587 * colour.planes[n + i] + 0.114 * colour.planes[2 * n + i];
  return grey;
}

// Blurs sharp with the example kernel (circularly or with replicated borders), adds 0.5 % noise,
// writes blurred and kernel files into dir, runs marlith and returns the restored planes.
struct BlurRun {
  ImagePlanes blurred;
  ImagePlanes restored;
};
BlurRun BlurAndRestore(const TempDir& dir, const ImagePlanes& sharp, synthesis::BlurBorder border,
                       const std::string& boundaryType) {
  const ImagePlanes kernelImage =
      synthesis::ReadImagePlanes((SourceDir() / "examples/motion_kernel.png").string());
  std::vector<double> kernel(kernelImage.planes.begin(),
                             kernelImage.planes.begin() + kernelImage.width * kernelImage.height);
  double sum = 0.0;
  for (double v : kernel) sum += v;
  for (double& v : kernel) v /= sum;
  BlurRun run;
  run.blurred = sharp;
  run.blurred.planes = synthesis::Blur(sharp.planes, sharp.width, sharp.height, sharp.channels,
                                       kernel, kernelImage.width, kernelImage.height, border);
  synthesis::AddGaussianNoise(run.blurred.planes, 0.005, 42);
  synthesis::QuantiseTo8Bit(run.blurred.planes);
  synthesis::WriteImagePlanes(dir / "blurred.png", run.blurred);
  synthesis::WriteImagePlanes(dir / "kernel.png", kernelImage);
  const ProcessResult r = RunProcess(MarlithExe(), {dir / "blurred.png", dir / "kernel.png",
                                                    dir / "out.png", boundaryType, "1", "1"});
  EXPECT_EQ(r.exitCode, 0) << r.out << r.err;
  run.restored = synthesis::ReadImagePlanes(dir / "out.png");
  return run;
}

TEST(DeblurFiles, CircularBlurOfAColourPhotographGainsAtLeast3dB) {
  TempDir dir;
  const ImagePlanes sharp = ExampleSharp();
  ASSERT_EQ(sharp.channels, 3);
  const BlurRun run = BlurAndRestore(dir, sharp, synthesis::BlurBorder::kCircular, "0");
  ASSERT_EQ(run.restored.channels, 3);
  ASSERT_EQ(run.restored.width, sharp.width);
  const double before =
      synthesis::Psnr(run.blurred.planes, sharp.planes, sharp.width, sharp.height, 3);
  const double after =
      synthesis::Psnr(run.restored.planes, sharp.planes, sharp.width, sharp.height, 3);
  std::printf("PSNR %.2f dB -> %.2f dB\n", before, after);
  EXPECT_GE(after, before + 3.0);
}

TEST(DeblurFiles, CircularBlurOfAGreyPhotographGainsAtLeast3dB) {
  TempDir dir;
  const ImagePlanes sharp = ToGrey(ExampleSharp());
  const BlurRun run = BlurAndRestore(dir, sharp, synthesis::BlurBorder::kCircular, "0");
  ASSERT_EQ(run.restored.channels, 1);
  const double before =
      synthesis::Psnr(run.blurred.planes, sharp.planes, sharp.width, sharp.height);
  const double after =
      synthesis::Psnr(run.restored.planes, sharp.planes, sharp.width, sharp.height);
  std::printf("PSNR %.2f dB -> %.2f dB\n", before, after);
  EXPECT_GE(after, before + 3.0);
}

// Mean squared error of a against b over the band of the given width along the image border.
double BorderBandPsnr(const ImagePlanes& a, const ImagePlanes& b, int band) {
  double sum = 0.0;
  size_t count = 0;
  const size_t plane = static_cast<size_t>(a.width) * a.height;
  for (int c = 0; c < a.channels; ++c)
    for (int y = 0; y < a.height; ++y)
      for (int x = 0; x < a.width; ++x) {
        if (x >= band && x < a.width - band && y >= band && y < a.height - band) continue;
        const double d =
            a.planes[c * plane + y * a.width + x] - b.planes[c * plane + y * a.width + x];
        sum += d * d;
        ++count;
      }
  return 10.0 * std::log10(static_cast<double>(count) / sum);
}

TEST(DeblurFiles, SmoothBordersBeatPeriodicOnesAlongTheEdgesOfAReplicatedBlur) {
  // A photograph is not periodic: blurred with replicated borders, a periodic solve rings at
  // the edges, and the smooth periodic margins of a non-zero boundary type avoid that.
  TempDir dir;
  const ImagePlanes sharp = ExampleSharp();
  const BlurRun periodic = BlurAndRestore(dir, sharp, synthesis::BlurBorder::kReplicated, "0");
  const BlurRun smooth = BlurAndRestore(dir, sharp, synthesis::BlurBorder::kReplicated, "1");
  const int band = 17;  // one kernel width
  const double periodicBand = BorderBandPsnr(periodic.restored, sharp, band);
  const double smoothBand = BorderBandPsnr(smooth.restored, sharp, band);
  std::printf("border band PSNR: boundary 0 %.2f dB, boundary 1 %.2f dB\n", periodicBand,
              smoothBand);
  EXPECT_GT(smoothBand, periodicBand + 1.0);
  // And the whole image is restored at least as well.
  EXPECT_GT(synthesis::Psnr(smooth.restored.planes, sharp.planes, sharp.width, sharp.height, 3),
            synthesis::Psnr(periodic.restored.planes, sharp.planes, sharp.width, sharp.height, 3));
}

}  // namespace
}  // namespace marlith::test
