#include "plane/volume_transform.h"

#include <string>

#include "plane/fftw_plan.h"

namespace marlith {

VolumeTransform::VolumeTransform(VolumeSize size, int threads) : size_(size) {
  auto buffer = AllocateFftwBuffer<double>(size.PaddedSamples());
  auto* spectrum = reinterpret_cast<fftw_complex*>(buffer.get());
  // FFTW takes the slowest dimension first; a plane is planned as rank 2, as the 2-D transforms
  // are.
  const int dims3[3] = {size.depth, size.height, size.width};
  const int rank = size.depth > 1 ? 3 : 2;
  const int* dims = rank == 3 ? dims3 : dims3 + 1;
  std::lock_guard<std::mutex> lock(FftwPlannerMutex());
  fftw_plan_with_nthreads(threads);
  forward_ = AdoptFftwPlan(PlanTransform([&](unsigned flags) {
                                            return fftw_plan_dft_r2c(rank, dims, buffer.get(),
                                                                     spectrum, flags);
                                          }),
                           "forward transform");
  inverse_ = AdoptFftwPlan(PlanTransform([&](unsigned flags) {
                                            return fftw_plan_dft_c2r(rank, dims, spectrum,
                                                                     buffer.get(), flags);
                                          }),
                           "inverse transform");
}

void VolumeTransform::Forward(double* data) const {
  fftw_execute_dft_r2c(forward_.get(), data, reinterpret_cast<fftw_complex*>(data));
}

void VolumeTransform::Inverse(double* data) const {
  fftw_execute_dft_c2r(inverse_.get(), reinterpret_cast<fftw_complex*>(data), data);
}

}  // namespace marlith
