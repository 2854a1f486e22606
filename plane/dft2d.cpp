#include "plane/dft2d.h"

#include <algorithm>
#include <cstdio>
#include <vector>

#include "plane/fftw_plan.h"

namespace marlith {
namespace {

// Every failed transform says so and the caller carries on.
int32_t Report(bool ok) {
  if (ok) return 0;
  std::printf("ERROR: bad status: %d\n", -1);
  return -1;
}

}  // namespace

int32_t Dft2d(const double* source, int32_t width, int32_t height,
              std::complex<double>* destination) {
  fftw_plan plan;
  {
    std::lock_guard<std::mutex> lock(FftwPlannerMutex());
    fftw_plan_with_nthreads(1);
    // FFTW_ESTIMATE leaves the arrays alone while planning.
    plan = fftw_plan_dft_r2c_2d(height, width, const_cast<double*>(source),
                                reinterpret_cast<fftw_complex*>(destination), FFTW_ESTIMATE);
  }
  if (!plan) return Report(false);
  const FftwPlan owner(plan);
  fftw_execute(plan);
  return Report(true);
}

int32_t Dft2dInPlaceSafe(double* source, int32_t width, int32_t height, double* destination) {
  const size_t spectrumDoubles = static_cast<size_t>(width / 2 + 1) * 2 * height;
  if (destination != source) {
    return Dft2d(source, width, height, reinterpret_cast<std::complex<double>*>(destination));
  }
  std::vector<std::complex<double>> scratch(spectrumDoubles / 2);
  const int32_t status = Dft2d(source, width, height, scratch.data());
  if (status == 0) {
    std::copy_n(reinterpret_cast<const double*>(scratch.data()), spectrumDoubles, destination);
  }
  return status;
}

int32_t Dft2dSingle(const float* source, int32_t width, int32_t height,
                    std::complex<float>* destination) {
  fftwf_plan plan;
  {
    std::lock_guard<std::mutex> lock(FftwPlannerMutex());
    plan = fftwf_plan_dft_r2c_2d(height, width, const_cast<float*>(source),
                                 reinterpret_cast<fftwf_complex*>(destination), FFTW_ESTIMATE);
  }
  if (!plan) return Report(false);
  fftwf_execute(plan);
  {
    std::lock_guard<std::mutex> lock(FftwPlannerMutex());
    fftwf_destroy_plan(plan);
  }
  return Report(true);
}

}  // namespace marlith
