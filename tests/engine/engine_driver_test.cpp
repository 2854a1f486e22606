#include "engine/engine_driver.h"

#include <gtest/gtest.h>

#include <cmath>
#include <functional>
#include <numeric>
#include <tuple>

#include "marlith/error.hpp"
#include "plane/channel_solve.h"
#include "plane/worker_pool.h"

namespace marlith {
namespace {

// The recognised motion blur on the 0..255 scale and its 20 x 7 correction, written out from
// the kernel tables as published with the tool.
const std::vector<double> kReference = {
    0,  0,   0,   0,   0,   0,   0,   0,   0,   0,   0,   0,   0,   0,   0,   0,   0,   0,   23,
    0,  0,   0,   0,   0,   0,   0,   0,   0,   0,   0,   0,   0,   0,   0,   0,   18,  137, 27,
    0,  0,   0,   0,   0,   0,   0,   0,   0,   0,   0,   0,   0,   0,   23,  155, 123, 0,   0,
    0,  0,   0,   0,   0,   0,   0,   0,   0,   0,   0,   0,   59,  164, 159, 0,   0,   0,   0,
    0,  0,   0,   0,   0,   0,   0,   0,   0,   55,  164, 200, 155, 0,   0,   0,   0,   0,   0,
    51, 32,  0,   0,   73,  110, 178, 223, 218, 164, 59,  0,   0,   0,   0,   0,   0,   0,   0,
    0,  255, 237, 218, 182, 123, 0,   0,   0,   0,   0,   0,   0,   0,   0,   0,   0,   0,   0};

// Rows 0-4 are right-aligned in the 20 columns, rows 5 and 6 full.
double Correction(int x, int y) {
  static const std::vector<std::vector<double>> rows = {
      {0.0057},
      {0.0044, 0.0335, 0.0067},
      {0.0057, 0.0379, 0.0301, 0, 0},
      {0.0144, 0.0402, 0.0389, 0.001, 0, 0, 0},
      {0.0134, 0.0402, 0.0489, 0.0379, 0, 0, 0, 0, 0, 0},
      {0, 0.0124, 0.0077, 0.0077, 0.0111, 0.0178, 0.0268, 0.0435, 0.0546, 0.0533, 0.0402, 0.0144},
      {0.0245, 0.0657, 0.0623, 0.0579, 0.0533, 0.0446, 0.0301, 0.0134}};
  const auto& row = rows[y];
  const int start = y < 5 ? 20 - static_cast<int>(row.size()) : 0;
  return x < start || x - start >= static_cast<int>(row.size()) ? 0.0 : row[x - start];
}

// The prepared kernel's interior (its one-sample zero border removed); checks the border.
std::vector<double> Interior(const PreparedKernel& k) {
  std::vector<double> in;
  for (int i = 0; i < k.width * k.height; ++i) {
    const int x = i % k.width, y = i / k.width;
    if (y == 0 || x == 0 || y == k.height - 1 || x == k.width - 1)
      EXPECT_EQ(k.values[i], 0.0) << "border at " << x << "," << y;
    else
      in.push_back(k.values[i]);
  }
  return in;
}

TEST(PrepareKernel, BlendsKernelsNearTheReferenceWithTwoPartsCorrectionAndRenormalisesOthers) {
  // Near the reference (any brightness, or a small change): with r = 3585 / (the kernel's sum),
  // r x (kernel + 2 correction) over rows of 20, its first 133 values divided by their sum and
  // the last 7 left on the 255 scale. Far from it: the values in stored order over their sum.
  std::vector<double> near = kReference, line(19 * 7, 0.0);
  near[6 * 19 + 13] = 0.5;
  near[6 * 19 + 14] = 0.4;
  for (int x = 0; x < 19; ++x) line[3 * 19 + x] = 1.0;  // a horizontal line ...
  line[0] = line[6 * 19 + 18] = 1.0;                    // ... with a 19 x 7 support
  for (auto [scale, base, blended] :
       {std::tuple{1.0 / 3585, kReference, true}, std::tuple{1.0 / 10755, kReference, true},
        std::tuple{1.0, kReference, true}, std::tuple{1.0, near, true},
        std::tuple{2.0, line, false}}) {
    std::vector<double> k = base;
    for (double& v : k) v *= scale;
    const double r = 3585.0 / std::accumulate(k.begin(), k.end(), 0.0);
    std::vector<double> expected(140, 0.0);
    for (int i = 0; i < 140; ++i)
      expected[i] = !blended ? (i < 133 ? k[i] : 0.0)
                             : r * ((i % 20 < 19 ? k[i / 20 * 19 + i % 20] : 0.0) +
                                    2.0 * Correction(i % 20, i / 20));
    const double sum = std::accumulate(expected.begin(), expected.begin() + 133, 0.0);
    const PreparedKernel p = PrepareKernel(k, 19, 7);
    ASSERT_EQ(p.width * 100 + p.height, 2209);
    const auto in = Interior(p);
    for (int i = 0; i < 140; ++i)
      EXPECT_NEAR(in[i], i < 133 ? expected[i] / sum : expected[i], 1e-12 * (i < 133 ? 1.0 : r))
          << i << " " << scale;
  }
}

TEST(PrepareKernel, OtherKernelsAreOnlyTrimmedAndBorderedAndBadOnesRefused) {
  // 15 x 15 with support 9 x 11 (columns 3..11, rows 2..12), not normalised.
  std::vector<double> k(15 * 15, 0.0);
  for (int y = 2; y <= 12; ++y)
    for (int x = 3; x <= 11; ++x) k[y * 15 + x] = 2.0 + x + y;
  k[0] = 25.0 / 255;  // peak / 255 exactly: trimmed away (only taps above it count)
  const PreparedKernel p = PrepareKernel(k, 15, 15);
  ASSERT_EQ(p.width * 100 + p.height, 1113);
  const auto in = Interior(p);
  for (int i = 0; i < 99; ++i) EXPECT_EQ(in[i], k[(i / 9 + 2) * 15 + i % 9 + 3]);
  for (double bad : {0.0, -1.0, std::nan(""), HUGE_VAL}) {
    std::vector<double> b(9, bad == 0.0 || bad == -1.0 ? bad : 0.1);
    b[4] = bad;
    EXPECT_THROW(PrepareKernel(b, 3, 3), Error) << bad;
  }
}

TEST(RunDeconvEngine, UnknownVariantsLeaveTheOutputUntouchedAndBadRequestsAreRefused) {
  std::vector<double> input(8 * 6, 0.5), output(8 * 6, -7.0), kernel{0.25, 0.5, 0.25};
  DeconvRequest good{input.data(), output.data(), kernel.data(), 8, 6, 1, 3, 1, 0.0005, 20, 0};
  for (int variant : {0, 3, -1}) {
    EXPECT_EQ(RunDeconvEngine(good, variant), 0);
    for (double v : output) ASSERT_EQ(v, -7.0);
  }
  EXPECT_EQ(RunDeconvEngine(good, kFrequencySolverVariant), 0);
  for (double v : output) EXPECT_NEAR(v, 0.5, 1e-9);  // a flat image stays flat
  const double inf = HUGE_VAL, nan = std::nan("");
  for (auto mutate : std::vector<std::function<void(DeconvRequest&)>>{
           [](auto& r) { r.width = 0; }, [](auto& r) { r.height = -3; },
           [](auto& r) { r.channels = 0; }, [](auto& r) { r.kernelWidth = 0; },
           [](auto& r) { r.width = r.height = 1 << 30; }, [](auto& r) { r.input = nullptr; },
           [&](auto& r) { r.noise = inf; }, [&](auto& r) { r.noise = nan; },
           [&](auto& r) { r.localPriorWeight = nan; },
           [&](auto& r) { r.localPriorWeight = -inf; }}) {
    DeconvRequest r = good;
    mutate(r);
    EXPECT_THROW(RunDeconvEngine(r, 1), Error);
  }
}

TEST(SolverSetupAhead, GivesItsSolverToTheRunItFitsAndTheSameResult) {
  constexpr int W = 40, H = 30;
  std::vector<double> input(W * H);
  for (int i = 0; i < W * H; ++i) input[i] = 0.5 + 0.4 * std::sin(i * 0.37) * std::cos(i * 0.011);
  const std::vector<double> kernel{1, 2, 3, 2, 1, 0, 1, 2, 1}, other{1, 2, 1, 2, 3, 2, 0, 1, 0};
  auto request = [&](const std::vector<double>& k, int width, int height, double* output) {
    return MakeScaledRequest(input.data(), output, width, height, 1, k.data(), 3, 3, 0.5, 1, 0);
  };
  // Taken once, and only by a run of the same working size, kernel, weight and threads; a set-up
  // that failed (a kernel larger than the image) gives nothing.
  struct Case {
    int width, height;
    const std::vector<double>& kernel;
    int threads;
    bool taken;
  };
  const int threads = ResolveThreads(0);
  for (const Case& c :
       {Case{W, H, kernel, threads, true}, Case{W - 2, H, kernel, threads, false},
        Case{W, H, other, threads, false}, Case{W, H, kernel, threads + 1, false}}) {
    SolverSetupAhead ahead(request(kernel, W, H, nullptr), {});
    EXPECT_EQ(ahead.Take(c.width, c.height, c.kernel, 3, 3, 20, c.threads) != nullptr, c.taken);
    EXPECT_EQ(ahead.Take(W, H, kernel, 3, 3, 20, threads), nullptr);
  }
  SolverSetupAhead failed(request(kernel, 2, 2, nullptr), {});
  EXPECT_EQ(failed.Take(2, 2, kernel, 3, 3, 20, threads), nullptr);

  // The engine with a solver set up ahead from the sizes and kernel alone gives the same result.
  std::vector<double> plain(W * H), ahead(W * H);
  ASSERT_EQ(RunDeconvEngine(request(kernel, W, H, plain.data()), kFrequencySolverVariant), 0);
  const auto setUp = StartSolverSetupAhead(request(kernel, W, H, nullptr));
  ASSERT_EQ(RunDeconvEngine(request(kernel, W, H, ahead.data()), kFrequencySolverVariant, nullptr,
                            setUp.get()),
            0);
  EXPECT_EQ(ahead, plain);
}

}  // namespace
}  // namespace marlith
