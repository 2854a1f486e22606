// marlith-deblur with a generated kernel, on real image files.
#include <gtest/gtest.h>

#include <algorithm>
#include <cstdio>

#include "bench/synthesis.h"
#include "image/kernel_file.h"
#include "marlith/kernels.hpp"
#include "support/test_support.h"

namespace marlith::test {
namespace {

using synthesis::ImagePlanes;

TEST(KernelShapesE2e, RestoresAGaussianBlurFromItsSigmaAndWritesTheKernelItUsed) {
  // The example photograph blurred by the Gaussian of sigma 2 (replicated borders).
  const ImagePlanes sharp =
      synthesis::ReadImagePlanes(SourceDir() / "examples" / "earth_sharp.png");
  const int w = sharp.width, h = sharp.height, c = sharp.channels;
  const Kernel k = GaussianKernel(2.0);
  const int r = k.width / 2;
  ImagePlanes blurred = sharp;
  for (int ch = 0; ch < c; ++ch)
    for (int y = 0; y < h; ++y)
      for (int x = 0; x < w; ++x) {
        double s = 0.0;
        for (int j = -r; j <= r; ++j)
          for (int i = -r; i <= r; ++i)
            s += k.values[static_cast<size_t>(j + r) * k.width + i + r] *
                 sharp.planes[(static_cast<size_t>(ch) * h + std::clamp(y - j, 0, h - 1)) * w +
                              std::clamp(x - i, 0, w - 1)];
        blurred.planes[(static_cast<size_t>(ch) * h + y) * w + x] = s;
      }
  TempDir dir;
  synthesis::WriteImagePlanes(dir / "blurred.png", blurred);
  const double before = synthesis::Psnr(blurred.planes, sharp.planes, w, h, c);

  for (const char* spec : {"gaussian:2", "gaussian:auto"}) {
    const ProcessResult run =
        RunProcess(DeblurExe(), {"-k", spec, "--colorspace", "linear", "-v", "--kernel-out",
                                 dir / "used.npy", "-o", dir / "out.png", dir / "blurred.png"});
    ASSERT_EQ(run.exitCode, 0) << spec << run.err;
    const ImagePlanes restored = synthesis::ReadImagePlanes(dir / "out.png");
    const double after = synthesis::Psnr(restored.planes, sharp.planes, w, h, c);
    std::printf("%s: PSNR %.2f dB -> %.2f dB\n", spec, before, after);
    EXPECT_GT(after, before + 3.0) << spec;
    const KernelFile used = ReadKernelFile(dir / "used.npy");
    if (std::string(spec) == "gaussian:2") {
      ASSERT_EQ(used.width * 1000 + used.height, k.width * 1000 + k.height);
      for (size_t i = 0; i < k.values.size(); ++i)
        EXPECT_NEAR(used.values[i], k.values[i], 1e-15) << i;
    } else {
      // Said under -v; the kernel written is the Gaussian of that sigma.
      const size_t at = run.err.find("Gaussian sigma ");
      ASSERT_NE(at, std::string::npos) << run.err;
      const double sigma = std::stod(run.err.substr(at + 15));
      EXPECT_NEAR(sigma, 2.0, 0.6);
      // The sigma is printed to 4 digits.
      const Kernel expected = GaussianKernel(sigma);
      ASSERT_EQ(used.values.size(), expected.values.size());
      for (size_t i = 0; i < used.values.size(); ++i)
        EXPECT_NEAR(used.values[i], expected.values[i], 1e-4) << i;  // peak 0.04
    }
  }
  const ProcessResult bad = RunProcess(DeblurExe(), {"-k", "motion:15", dir / "blurred.png"});
  EXPECT_EQ(bad.exitCode, 2);
  EXPECT_NE(bad.err.find("motion:LENGTH,ANGLE"), std::string::npos) << bad.err;
}

}  // namespace
}  // namespace marlith::test
