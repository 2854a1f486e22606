// The C options entry is a mapping onto the C++ options API: what it adds is the mapping of
// each field, the size-versioned structs, the result codes and the calling thread's last error.
#include <gtest/gtest.h>

#include <cmath>
#include <cstddef>
#include <string>
#include <thread>
#include <vector>

#include "marlith/deconvolve.hpp"
#include "marlith/marlith.h"

namespace marlith {
namespace {

MarlithImage Planar(std::vector<double>& v, int w, int h) {
  return {v.data(), MARLITH_FLOAT64, w, h, 1, 1, w, int64_t{w} * h};
}

TEST(OptionsEntry, MapsEveryFieldOntoTheOptionsApiAndFillsTheReport) {
  // Exact margins give sizes that are not fast ones; the kernel refinement has room to fit.
  const int W = 90, H = 70;
  std::vector<double> image(W * H);
  for (int i = 0; i < W * H; ++i) image[i] = 0.5 + 0.3 * std::sin(0.37 * i) * std::cos(0.05 * i);
  // Off centre, so that the two origins differ.
  const std::vector<double> kernel{0, 0, 0, 0, 0, 0, 0, 0, 1, 3, 0, 0, 0, 2, 1};
  MarlithImage in = Planar(image, W, H);
  for (int setting = 0; setting < 3; ++setting) {
    MarlithOptions c;
    marlithDefaultOptions(&c);
    DeconvolveOptions cpp;
    std::vector<double> outC(image.size()), outCpp(image.size()), kernelOut(64, -1.0);
    MarlithReport report{sizeof(MarlithReport), 0, 0, 0, 0, kernelOut.data(), 64};
    if (setting == 0) {
      // A caller built when the options ended before the progress fields and the report before
      // the kernel: what lies past the size is neither read nor written.
      c.size = offsetof(MarlithOptions, progress);
      c.progress = [](const char*, double, void*) { return 1; };  // would cancel
      c.colorspace = MARLITH_COLORSPACE_SRGB;                     // would linearise
      report.size = offsetof(MarlithReport, kernel);
    } else if (setting == 1) {
      c.noiseAutomatic = 0, c.noise = 0.07, cpp.noise = 0.07;
      c.margins = MARLITH_MARGINS_EXACT, cpp.margins = Margins::kExact;
      c.kernelOrigin = MARLITH_ORIGIN_SUPPORT, cpp.kernelOrigin = KernelOrigin::kSupport;
    } else {
      c.boundary = MARLITH_BOUNDARY_PERIODIC, cpp.boundary = Boundary::kPeriodic;
      c.refineKernel = 1, cpp.refineKernel = true;
      c.threads = 1, cpp.threads = 1;
      c.colorspace = MARLITH_COLORSPACE_SRGB, cpp.colorspace = Colorspace::kSrgb;
    }
    MarlithImage outView = Planar(outC, W, H);
    ASSERT_EQ(marlithDeconvolveImage(&in, &outView, kernel.data(), 5, 3, &c, &report), MARLITH_OK)
        << marlithLastError();
    const DeconvolveReport expected =
        Deconvolve(ConstImageView::Planar(image.data(), W, H), {kernel, 5, 3},
                   ImageView::Planar(outCpp.data(), W, H), cpp);
    // Later runs of a size may use measured transform plans: rounding differs, and the kernel
    // refinement's fits carry it up to about 1e-11.
    for (size_t i = 0; i < outC.size(); ++i) ASSERT_NEAR(outC[i], outCpp[i], 1e-9) << setting;
    EXPECT_EQ(std::isnan(report.noiseLevel), setting == 1);
    EXPECT_NEAR(report.noiseStrength, expected.noiseStrength, 1e-15);
    ASSERT_EQ(report.kernelWidth * 100 + report.kernelHeight,
              expected.kernelWidth * 100 + expected.kernelHeight);
    EXPECT_EQ(report.kernel, kernelOut.data());
    for (size_t i = 0; i < expected.kernel.size(); ++i)
      EXPECT_NEAR(kernelOut[i], setting ? expected.kernel[i] : -1.0, 1e-9) << setting;
  }
  // The noise entry gives what the automatic run found.
  double level = -1.0, strength = -1.0;
  ASSERT_EQ(marlithEstimateNoise(&in, &level, &strength), MARLITH_OK);
  const NoiseReport expected = EstimateNoise(ConstImageView::Planar(image.data(), W, H));
  EXPECT_EQ(level, expected.level);
  EXPECT_EQ(strength, expected.strength);
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
  // Zero strides keep every sample in the caller's buffer: only the size check stands between
  // these views and a buffer of the wrapped (2^64 -> 0) or overflowed size.
  MarlithImage wrapping = {image.data(), MARLITH_FLOAT64, 1 << 30, 1 << 30, 16, 0, 0, 0};
  MarlithImage overflowing = {image.data(), MARLITH_FLOAT64, INT32_MAX, INT32_MAX, 3, 0, 0, 0};
  MarlithOptions options;
  marlithDefaultOptions(&options);
  MarlithOptions badBoundary = options, badSize = options, badColorspace = options;
  badBoundary.boundary = 7;
  badColorspace.colorspace = 2;
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
      {&wrapping, kernel.data(), nullptr, "1073741824 x 1073741824 x 16 samples is too large"},
      {&overflowing, kernel.data(), nullptr, "too large"},
      {&in, kernel.data(), &badBoundary, "boundary option has no value 7"},
      {&in, kernel.data(), &badColorspace, "colorspace option has no value 2"},
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

}  // namespace
}  // namespace marlith
