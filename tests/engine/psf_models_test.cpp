#include <gtest/gtest.h>

#include <cmath>
#include <numbers>

#include "marlith/kernels.hpp"
#include "support/test_support.h"

namespace marlith {
namespace {

double At(const Kernel& k, int plane, int row, int column) {
  return k.values[(static_cast<size_t>(plane) * k.height + row) * k.width + column];
}

// The distance (in samples from the start) of the first local minimum of f(0), f(1), ...
int FirstMinimum(const auto& f, int count) {
  for (int i = 1; i + 1 < count; ++i)
    if (f(i) < f(i - 1) && f(i) <= f(i + 1)) return i;
  return -1;
}

struct Optics {
  double na, wavelength, ri;
};
constexpr Optics kOptics[] = {{1.4, 520, 1.515}, {0.8, 600, 1.0}, {1.2, 450, 1.33}};

TEST(PsfModels, InFocusWidefieldPsfIsTheAiryPattern) {
  // I(r) = (2 J1(v) / v)^2, v = 2 pi na r / wavelength: first zero at 0.61 wavelength / na.
  for (const Optics o : kOptics) {
    const double dxy = 8, airy = 0.6098 * o.wavelength / o.na;
    const int half = static_cast<int>(1.3 * airy / dxy);
    const Kernel k = WidefieldPsf(
        {.na = o.na, .emission = o.wavelength, .ri = o.ri, .dxy = dxy, .nxy = 2 * half + 1});
    ASSERT_EQ(k.depth, 1);
    const auto row = [&](int i) { return At(k, 0, half, half + i); };
    EXPECT_NEAR(FirstMinimum(row, half + 1) * dxy, airy, dxy) << o.na;
    for (const double r : {0.25 * airy, 0.5 * airy, 0.75 * airy}) {
      const int i = static_cast<int>(std::lround(r / dxy));
      const double v = 2 * std::numbers::pi * o.na * i * dxy / o.wavelength;
      const double airyRatio = std::pow(2 * std::cyl_bessel_j(1.0, v) / v, 2);
      EXPECT_NEAR(row(i) / row(0), airyRatio, 0.01) << o.na << " at " << r;
    }
  }
}

TEST(PsfModels, WidefieldAxialProfileFallsToItsFirstZeroAt2nLambdaOverNaSquared) {
  // On the axis I(z) = (sin(u / 4) / (u / 4))^2, u = 2 pi na^2 z / (ri wavelength).
  for (const Optics o : kOptics) {
    const double dz = 20, zero = 2 * o.ri * o.wavelength / (o.na * o.na);
    const int half = static_cast<int>(1.4 * zero / dz);
    const Kernel k = WidefieldPsf({.na = o.na,
                                   .emission = o.wavelength,
                                   .ri = o.ri,
                                   .dxy = 5,
                                   .dz = dz,
                                   .nz = 2 * half + 1,
                                   .nxy = 3});
    ASSERT_EQ(k.depth, 2 * half + 1);
    const auto axis = [&](int i) { return At(k, half + i, 1, 1); };
    EXPECT_NEAR(FirstMinimum(axis, half + 1) * dz, zero, dz) << o.na;
    const int i = static_cast<int>(std::lround(zero / 2 / dz));
    const double quarterU = std::numbers::pi * o.na * o.na * i * dz / (2 * o.ri * o.wavelength);
    EXPECT_NEAR(axis(i) / axis(0), std::pow(std::sin(quarterU) / quarterU, 2), 0.01) << o.na;
  }
}

TEST(PsfModels, StacksAreNormalisedSymmetricAndKeepEachPlanesLight) {
  const MicroscopeOptics optics{
      .na = 1.4, .emission = 520, .excitation = 488, .ri = 1.515, .dxy = 65, .dz = 200};
  for (const Kernel& k : {WidefieldPsf(optics), ConfocalPsf(optics)}) {
    // The default stack reaches twice the first axial zero (804 nm) each side.
    ASSERT_EQ(k.depth, 2 * static_cast<int>(std::ceil(2 * 804.3 / 200)) + 1);
    ASSERT_EQ(k.width % 2, 1);
    ASSERT_EQ(k.width, k.height);
    double sum = 0, peak = 0;
    for (const double v : k.values) sum += v, peak = std::max(peak, v);
    EXPECT_NEAR(sum, 1.0, 1e-12);
    const int c = k.width / 2, d = k.depth;
    EXPECT_EQ(At(k, d / 2, c, c), peak);
    for (int z = 0; z < d; ++z)
      for (int y = 0; y < k.height; ++y)
        for (int x = 0; x < k.width; ++x) {
          const double v = At(k, z, y, x);
          EXPECT_EQ(v, At(k, d - 1 - z, y, x));
          EXPECT_EQ(v, At(k, z, k.height - 1 - y, x));
          EXPECT_EQ(v, At(k, z, y, k.width - 1 - x));
          EXPECT_NEAR(v, At(k, z, x, y), 1e-12 * peak);
        }
  }
  // Defocus spreads a widefield plane's light but keeps it: every plane holds the same light,
  // less the Airy tails beyond the kernel's edge.
  const Kernel k = WidefieldPsf(optics);
  const size_t plane = static_cast<size_t>(k.width) * k.height;
  std::vector<double> sums(static_cast<size_t>(k.depth), 0.0);
  for (size_t i = 0; i < k.values.size(); ++i) sums[i / plane] += k.values[i];
  for (const double s : sums) EXPECT_NEAR(s / sums[static_cast<size_t>(k.depth / 2)], 1.0, 0.03);
}

TEST(PsfModels, ConfocalPsfVanishesAtTheShorterWavelengthsAiryZero) {
  const double dxy = 5, na = 1.2, excitation = 405, emission = 600;
  const Kernel k = ConfocalPsf({.na = na,
                                .emission = emission,
                                .excitation = excitation,
                                .ri = 1.33,
                                .dxy = dxy,
                                .nxy = 121});
  const auto row = [&](int i) { return At(k, 0, 60, 60 + i); };
  EXPECT_NEAR(FirstMinimum(row, 61) * dxy, 0.6098 * excitation / na, dxy);
}

TEST(PsfModels, SpecsAreReadOrRefusedNamingTheKey) {
  const KernelSpec spec = ParseKernelSpec("widefield:na=1.4,wavelength=520,ri=1.515,dxy=65,dz=200");
  EXPECT_EQ(spec.shape, KernelShape::kWidefield);
  EXPECT_EQ(spec.optics.na, 1.4);
  EXPECT_EQ(spec.optics.emission, 520);
  EXPECT_EQ(spec.optics.ri, 1.515);
  EXPECT_EQ(spec.optics.dxy, 65);
  EXPECT_EQ(spec.optics.dz, 200);
  const KernelSpec two =
      ParseKernelSpec("confocal:na=1,excitation=488,emission=520,ri=1.33,dxy=80");
  EXPECT_EQ(two.shape, KernelShape::kConfocal);
  EXPECT_EQ(two.optics.excitation, 488);
  EXPECT_EQ(MakeKernel(two).depth, 1);
  const std::pair<const char*, const char*> refused[] = {
      {"widefield:na=1.4,ri=1.515,dxy=65", "wavelength is missing"},
      {"widefield:na=1.6,wavelength=520,ri=1.515,dxy=65", "below the refractive index"},
      {"widefield:na=1.4,wavelength=520,ri=1.515,dxy=65,nz=9", "need the z step"},
      {"widefield:na=1.4,wavelength=520,ri=1.515,dxy=65,dz=100,nz=8", "must be odd"},
      {"widefield:na=1.4,wavelength=520,ri=1.515,dxy=0", "pixel size (dxy)"},
      {"widefield:na=1.4,wavelength=520nm,ri=1.515,dxy=65", "'520nm' is not a number"},
      {"widefield:na=1.4,wavelength=520,ri=1.515,dxy=65,excitation=488", "unknown key"},
      {"confocal:na=1.4,emission=520,ri=1.515,dxy=65", "excitation is missing"},
      {"widefield:na=1.4,wavelength=520,ri=1.515,dxy=0.01,dz=1", "more than"},
  };
  for (const auto& [text, why] : refused) {
    const std::string copy = text;  // clang 14 cannot capture a structured binding
    test::ExpectRefused([&] { MakeKernel(ParseKernelSpec(copy)); }, "", why);
  }
}

}  // namespace
}  // namespace marlith
