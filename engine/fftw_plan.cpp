#include "engine/fftw_plan.h"

#include <string>

#include "marlith/error.hpp"

namespace marlith {

std::mutex& FftwPlannerMutex() {
  // FFTW's thread support is switched on once, before the first plan; plans then choose their
  // own thread count with fftw_plan_with_nthreads under this lock.
  static std::mutex mutex;
  static const bool threadsReady = fftw_init_threads() != 0;
  (void)threadsReady;
  return mutex;
}

void FftwPlanDeleter::operator()(fftw_plan_s* plan) const {
  std::lock_guard<std::mutex> lock(FftwPlannerMutex());
  fftw_destroy_plan(plan);
}

FftwPlan AdoptFftwPlan(fftw_plan plan, const char* what) {
  if (!plan) throw Error(std::string("FFTW could not plan the ") + what);
  return FftwPlan(plan);
}

}  // namespace marlith
