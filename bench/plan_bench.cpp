// plan_bench [W H [threads [pairs]]]: the in-place forward and inverse transform pair the solver
// runs each round, planned with FFTW_ESTIMATE and with FFTW_MEASURE, timed in alternation so that
// both see the same load. Prints each planner's planning time, the best and the median pair, and
// whether two estimated plannings give the same bits (the reason the solver plans that way).
#include <fftw3.h>

#include <algorithm>
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <mutex>
#include <vector>

#include "plane/fftw_plan.h"
#include "plane/fourier_transform.h"

namespace {

using Clock = std::chrono::steady_clock;
using namespace marlith;

double Since(Clock::time_point t0) {
  return std::chrono::duration<double>(Clock::now() - t0).count();
}

struct Pair {
  fftw_plan forward = nullptr, inverse = nullptr;
  double planning = 0.0;
};

Pair Plan(int w, int h, int threads, unsigned flags, fftw_complex* spectrum) {
  std::lock_guard<std::mutex> lock(FftwPlannerMutex());
  fftw_plan_with_nthreads(threads);
  const auto t0 = Clock::now();
  double* real = reinterpret_cast<double*>(spectrum);
  Pair p;
  p.forward = fftw_plan_dft_r2c_2d(h, w, real, spectrum, flags);
  p.inverse = fftw_plan_dft_c2r_2d(h, w, spectrum, real, flags);
  p.planning = Since(t0);
  return p;
}

void Fill(fftw_complex* spectrum, int w, int h) {
  double* real = reinterpret_cast<double*>(spectrum);
  const int stride = 2 * (w / 2 + 1);
  for (int y = 0; y < h; ++y)
    for (int x = 0; x < w; ++x) real[size_t(y) * stride + x] = double((x * 7 + y * 13) % 251) / 251;
}

double RunPair(const Pair& p, fftw_complex* spectrum) {
  const auto t0 = Clock::now();
  fftw_execute_dft_r2c(p.forward, reinterpret_cast<double*>(spectrum), spectrum);
  fftw_execute_dft_c2r(p.inverse, spectrum, reinterpret_cast<double*>(spectrum));
  return Since(t0);
}

double Median(std::vector<double> v) {
  std::sort(v.begin(), v.end());
  return v[v.size() / 2];
}

}  // namespace

int main(int argc, char** argv) {
  const int w = argc > 2 ? std::atoi(argv[1]) : 1000, h = argc > 2 ? std::atoi(argv[2]) : 1000;
  const int threads = argc > 3 ? std::atoi(argv[3]) : 2;
  const int pairs = argc > 4 ? std::atoi(argv[4]) : 60;
  const size_t count = HalfSpectrumSize(w, h);
  auto spectrum = AllocateFftwBuffer<fftw_complex>(count);
  auto first = AllocateFftwBuffer<fftw_complex>(count);
  fftw_forget_wisdom();
  const Pair estimate = Plan(w, h, threads, FFTW_ESTIMATE, spectrum.get());
  // A second estimated plan gives the first one's bits (no wisdom in between).
  Fill(spectrum.get(), w, h);
  RunPair(estimate, spectrum.get());
  std::memcpy(first.get(), spectrum.get(), count * sizeof(fftw_complex));
  const Pair again = Plan(w, h, threads, FFTW_ESTIMATE, spectrum.get());
  Fill(spectrum.get(), w, h);
  RunPair(again, spectrum.get());
  const bool same = std::memcmp(first.get(), spectrum.get(), count * sizeof(fftw_complex)) == 0;
  const Pair measure = Plan(w, h, threads, FFTW_MEASURE, spectrum.get());
  Fill(spectrum.get(), w, h);
  RunPair(measure, spectrum.get());
  const bool measuredSame =
      std::memcmp(first.get(), spectrum.get(), count * sizeof(fftw_complex)) == 0;
  std::vector<double> e, m;
  for (int i = 0; i < pairs; ++i) {
    e.push_back(RunPair(estimate, spectrum.get()));
    m.push_back(RunPair(measure, spectrum.get()));
  }
  std::printf("%d x %d, %d threads, %d pairs each\n", w, h, threads, pairs);
  std::printf("FFTW_ESTIMATE: planning %.3f s, pair best %.2f ms, median %.2f ms\n",
              estimate.planning, 1e3 * *std::min_element(e.begin(), e.end()), 1e3 * Median(e));
  std::printf("FFTW_MEASURE:  planning %.3f s, pair best %.2f ms, median %.2f ms\n",
              measure.planning, 1e3 * *std::min_element(m.begin(), m.end()), 1e3 * Median(m));
  std::printf("two estimated plans give the same bits: %s; the measured plan gives them: %s\n",
              same ? "yes" : "no", measuredSame ? "yes" : "no");
  return 0;
}
