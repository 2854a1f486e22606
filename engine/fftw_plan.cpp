#include "engine/fftw_plan.h"

#include <string>

#include "marlith/error.hpp"

namespace marlith {

std::mutex& FftwPlannerMutex() {
  static std::mutex mutex;
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
