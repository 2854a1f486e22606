// The real executable on real image files: a known blur in, a sharper image out.
#include <gtest/gtest.h>

#include <cmath>
#include <cstdio>

#include "bench/synthesis.h"
#include "support/test_support.h"

namespace marlith::test {
namespace {

using synthesis::ImagePlanes;

TEST(DeblurFiles, RestoresTheShippedExampleBestWithSmoothMargins) {
  // The example photograph blurred with the example kernel (replicated borders) and 0.5 %
  // noise, restored as the README does it, taken as periodic (boundary type 0) and with smooth
  // margins (1).
  const std::filesystem::path examples = SourceDir() / "examples";
  const ImagePlanes sharp = synthesis::ReadImagePlanes(examples / "earth_sharp.png");
  const ImagePlanes blurred = synthesis::ReadImagePlanes(examples / "earth_blurred.png");
  const int W = sharp.width, H = sharp.height, C = sharp.channels;
  const int k = synthesis::ReadImagePlanes(examples / "motion_kernel.png").width;
  const double before = synthesis::Psnr(blurred.planes, sharp.planes, W, H, C);
  TempDir dir;
  double psnr[2], band[2];  // over the whole image, and along its border one kernel size deep
  for (int boundary : {0, 1}) {
    const ProcessResult r =
        RunProcess(MarlithExe(), {examples / "earth_blurred.png", examples / "motion_kernel.png",
                                  dir / "out.png", std::to_string(boundary), "0.1", "1"});
    ASSERT_EQ(r.exitCode, 0) << r.out << r.err;
    const ImagePlanes restored = synthesis::ReadImagePlanes(dir / "out.png");
    ASSERT_EQ(restored.channels * 100000 + restored.width, C * 100000 + W);
    psnr[boundary] = synthesis::Psnr(restored.planes, sharp.planes, W, H, C);
    double error = 0.0;
    size_t count = 0;
    for (size_t i = 0; i < restored.planes.size(); ++i) {
      const int x = i % W, y = i / W % H;
      if (x >= k && x < W - k && y >= k && y < H - k) continue;
      error += (restored.planes[i] - sharp.planes[i]) * (restored.planes[i] - sharp.planes[i]);
      ++count;
    }
    band[boundary] = 10.0 * std::log10(count / error);
    std::printf("boundary %d: PSNR %.2f dB -> %.2f dB, border band %.2f dB\n", boundary, before,
                psnr[boundary], band[boundary]);
  }
  EXPECT_GE(psnr[1], before + 10.0);
  // A photograph is not periodic: a periodic solve rings at the edges, and the smooth periodic
  // margins of a non-zero boundary type avoid that.
  EXPECT_GT(band[1], band[0] + 1.0);
  EXPECT_GT(psnr[1], psnr[0]);
}

}  // namespace
}  // namespace marlith::test
