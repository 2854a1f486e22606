// marlith-deblur on a 16-bit file of photon counts over a camera offset.
#include <gtest/gtest.h>

#include <cmath>
#include <random>
#include <string>

#include "bench/synthesis.h"
#include "support/test_support.h"

namespace marlith::test {
namespace {

TEST(PhotonCountsFiles, PoissonModelFindsTheOffsetAndRestoresAboveIt) {
  // Beads blurred by a Gaussian of sigma 1.5, 200 photons at their peak over an offset of 100,
  // Poisson noise, written as a 16-bit PGM (big-endian samples).
  const int w = 96, h = 96;
  std::mt19937 rng(11);
  std::vector<double> sharp(static_cast<size_t>(w) * h, 0.0), blurred(sharp.size(), 0.0);
  for (int b = 0; b < 14; ++b) sharp[(8 + rng() % (h - 16)) * w + 8 + rng() % (w - 16)] = 1.0;
  for (int y = 0; y < h; ++y)
    for (int x = 0; x < w; ++x)
      for (int j = -6; j <= 6; ++j)
        for (int i = -6; i <= 6; ++i)
          if (y + j >= 0 && y + j < h && x + i >= 0 && x + i < w)
            blurred[y * w + x] += sharp[(y + j) * w + x + i] * std::exp(-(i * i + j * j) / 4.5);
  double peak = 0.0;
  for (double v : blurred) peak = std::max(peak, v);
  std::string pgm = "P5\n" + std::to_string(w) + " " + std::to_string(h) + "\n65535\n";
  for (double v : blurred) {
    const int s = 100 + std::poisson_distribution<int>(200.0 * v / peak + 1e-9)(rng);
    pgm += static_cast<char>(s >> 8);
    pgm += static_cast<char>(s & 255);
  }
  TempDir dir;
  WriteFileBytes(dir / "beads.pgm", pgm);
  const std::string kernel = "gaussian:1.5";
  const ProcessResult r = RunProcess(DeblurExe(), {"-v", "-k", kernel, "--noise-model", "poisson",
                                                   "-o", dir / "out.pgm", dir / "beads.pgm"});
  ASSERT_EQ(r.exitCode, 0) << r.err;
  EXPECT_NE(r.err.find("photon counts over offset 100 (estimated)"), std::string::npos) << r.err;
  const auto out = synthesis::ReadImagePlanes(dir / "out.pgm");
  ASSERT_EQ(out.planes.size(), sharp.size());
  double lowest = 1e9, brightest = 0.0;
  for (double v : out.planes) {
    lowest = std::min(lowest, v * 65535.0);
    brightest = std::max(brightest, v * 65535.0);
  }
  // Non-negative counts: nothing below the offset; the beads sharpened above the blur's peak.
  EXPECT_GE(lowest, 100.0 - 0.5);
  EXPECT_GT(brightest, 100.0 + 1.5 * 200.0);

  const ProcessResult bad = RunProcess(
      DeblurExe(), {"-k", kernel, "--offset", "-3", "-o", dir / "x.pgm", dir / "beads.pgm"});
  EXPECT_EQ(bad.exitCode, 2);
  EXPECT_NE(bad.err.find("--offset"), std::string::npos) << bad.err;
}

}  // namespace
}  // namespace marlith::test
