#include <gtest/gtest.h>

#include <algorithm>
#include <cmath>
#include <cstddef>
#include <string>
#include <thread>
#include <vector>

#include "bench/synthesis.h"
#include "marlith/marlith.h"
#include "support/test_support.h"

namespace marlith::test {
namespace {

MarlithImage Planar(std::vector<double>& v, int w, int h, int c = 1) {
  return {v.data(), MARLITH_FLOAT64, w, h, c, 1, w, int64_t{w} * h};
}

// A blurred colour photograph-like scene on the 8-bit grid, and a motion kernel image.
synthesis::ImagePlanes BlurredScene(int w, int h, const std::vector<double>& kernel, int k) {
  synthesis::ImagePlanes image{std::vector<double>(static_cast<size_t>(w) * h * 3), w, h, 3};
  for (int c = 0; c < 3; ++c)
    for (int y = 0; y < h; ++y)
      for (int x = 0; x < w; ++x)
        image.planes[(c * h + y) * w + x] =
            0.3 + 0.4 * ((x / (6 + c) + y / 5) % 2) + 0.05 * std::sin(0.2 * x * (c + 1));
  image.planes =
      synthesis::Blur(image.planes, w, h, 3, kernel, k, k, synthesis::BlurBorder::kReplicated);
  synthesis::AddGaussianNoise(image.planes, 0.01, 3);
  synthesis::QuantiseTo8Bit(image.planes);
  return image;
}

TEST(OptionsEntry, ExactMarginsSupportOriginAndAGivenNoiseReproduceTheCommandLine) {
  const int W = 70, H = 52, K = 9;
  std::vector<double> kernel(K * K, 0.0);
  for (int i = 0; i < K; ++i) kernel[(i / 2 + 1) * K + i] = (i + 1.0) / 45.0;  // off centre
  auto image = BlurredScene(W, H, kernel, K);
  TempDir dir;
  synthesis::WriteImagePlanes(dir / "in.png", image);
  // The kernel image's peak is 255: the command line normalises it as the entry does.
  std::vector<double> kernelImage(kernel);
  for (double& v : kernelImage) v /= 9.0 / 45.0;
  synthesis::WriteImagePlanes(dir / "k.png", {kernelImage, K, K, 1});
  for (const char* boundary : {"0", "1"}) {
    const ProcessResult r = RunProcess(
        MarlithExe(), {dir / "in.png", dir / "k.png", dir / "out.png", boundary, "0.1", "1"});
    ASSERT_EQ(r.exitCode, 0) << r.out << r.err;
    const auto expected = synthesis::ReadImagePlanes(dir / "out.png");

    // What the command line reads: the 8-bit levels over 255.
    std::vector<double> kernelRead(kernelImage);
    for (double& v : kernelRead) v = std::round(v * 255.0) / 255.0;
    std::vector<double> out(image.planes.size());
    MarlithOptions options;
    marlithDefaultOptions(&options);
    options.noiseAutomatic = 0;
    options.noise = 0.1;
    options.boundary = boundary[0] == '1' ? MARLITH_BOUNDARY_SMOOTH : MARLITH_BOUNDARY_PERIODIC;
    options.margins = MARLITH_MARGINS_EXACT;
    options.kernelOrigin = MARLITH_ORIGIN_SUPPORT;
    MarlithImage in = Planar(image.planes, W, H, 3), outView = Planar(out, W, H, 3);
    ASSERT_EQ(marlithDeconvolveImage(&in, &outView, kernelRead.data(), K, K, &options, nullptr),
              MARLITH_OK)
        << marlithLastError();
    // The command line saves sample x 255 truncated after clamping.
    for (size_t i = 0; i < out.size(); ++i)
      ASSERT_EQ(std::floor(std::clamp(out[i], 0.0, 1.0) * 255.0),
                std::lround(expected.planes[i] * 255.0))
          << boundary << " sample " << i;
  }
}

TEST(OptionsEntry, RefusalsAndCancellationGiveCodesAndTheCallingThreadsReason) {
  std::vector<double> image(32 * 32, 0.5), out(image.size());
  MarlithImage in = Planar(image, 32, 32), outView = Planar(out, 32, 32);
  const std::vector<double> kernel{1, 2, 1};
  std::string otherThreadError;
  std::thread other([&] {
    const double bad[] = {1, -2, 1};
    EXPECT_EQ(marlithDeconvolveImage(&in, &outView, bad, 3, 1, nullptr, nullptr), MARLITH_ERROR);
    otherThreadError = marlithLastError();
  });
  other.join();
  EXPECT_NE(otherThreadError.find("negative value"), std::string::npos) << otherThreadError;
  EXPECT_STREQ(marlithLastError(), "");  // this thread has not failed

  MarlithImage wrongType = in;
  wrongType.sampleType = 9;
  MarlithOptions options;
  marlithDefaultOptions(&options);
  MarlithOptions badBoundary = options, badSize = options;
  badBoundary.boundary = 7;
  badSize.size = 1000;
  struct Case {
    const MarlithImage* input;
    const double* kernel;
    const MarlithOptions* options;
    const char* words;
  } const cases[] = {
      {nullptr, kernel.data(), nullptr, "input cannot be NULL"},
      {&in, nullptr, nullptr, "kernel cannot be NULL"},
      {&wrongType, kernel.data(), nullptr, "unknown sample type 9"},
      {&in, kernel.data(), &badBoundary, "boundary option has no value 7"},
      {&in, kernel.data(), &badSize, "size field (1000)"},
  };
  for (const Case& c : cases) {
    EXPECT_EQ(marlithDeconvolveImage(c.input, &outView, c.kernel, 3, 1, c.options, nullptr),
              MARLITH_ERROR);
    EXPECT_NE(std::string(marlithLastError()).find(c.words), std::string::npos)
        << marlithLastError();
  }

  options.progress = [](const char*, double, void* user) {
    return ++*static_cast<int*>(user) >= 2 ? 1 : 0;
  };
  int calls = 0;
  options.progressUser = &calls;
  EXPECT_EQ(marlithDeconvolveImage(&in, &outView, kernel.data(), 3, 1, &options, nullptr),
            MARLITH_CANCELLED);
  EXPECT_EQ(calls, 2);
}

TEST(OptionsEntry, ConcurrentCallsAndOlderShorterOptionsGiveTheSerialDefaultResult) {
  const int W = 48, H = 40;
  std::vector<double> image(W * H);
  for (int i = 0; i < W * H; ++i) image[i] = 0.5 + 0.3 * std::sin(0.37 * i);
  const std::vector<double> kernel{1, 3, 1, 3, 9, 3, 1, 3, 1};
  MarlithImage in = Planar(image, W, H);
  std::vector<double> serial(image.size());
  MarlithImage serialView = Planar(serial, W, H);
  MarlithReport report{};
  report.size = sizeof(report);
  ASSERT_EQ(marlithDeconvolveImage(&in, &serialView, kernel.data(), 3, 3, nullptr, &report),
            MARLITH_OK);
  EXPECT_GT(report.noiseStrength, 0.0);  // estimated
  EXPECT_EQ(report.kernelWidth, 5);      // 3 x 3 centred and bordered

  // A caller built when the struct ended before the progress fields.
  MarlithOptions older;
  marlithDefaultOptions(&older);
  older.size = offsetof(MarlithOptions, progress);
  std::vector<std::vector<double>> outs(3, std::vector<double>(image.size()));
  std::vector<std::thread> threads;
  for (auto& out : outs)
    threads.emplace_back([&, o = &out] {
      MarlithImage view = Planar(*o, W, H);
      EXPECT_EQ(marlithDeconvolveImage(&in, &view, kernel.data(), 3, 3, &older, nullptr),
                MARLITH_OK);
    });
  for (auto& t : threads) t.join();
  for (const auto& out : outs)
    for (size_t i = 0; i < out.size(); ++i) ASSERT_NEAR(out[i], serial[i], 1e-12);
}

}  // namespace
}  // namespace marlith::test
