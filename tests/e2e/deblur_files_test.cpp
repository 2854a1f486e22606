// The real executable on real image files: a known blur in, a sharper image out.
#include <gtest/gtest.h>

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

}  // namespace
}  // namespace marlith::test
