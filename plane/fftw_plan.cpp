#include "plane/fftw_plan.h"

#include <sys/mman.h>

#include <cstdint>
#include <cstdlib>
#include <string>

#include "marlith/error.hpp"
#include "plane/worker_pool.h"

namespace marlith {

namespace {

// FFTW's parallel loops run on the worker pool the solver's passes use (with FFTW's own
// pthreads the two pools took turns on the same cores), whose workers sleep between loops.
void PoolParallelLoop(void* (*work)(char*), char* jobData, size_t jobSize, int jobs, void*) {
  RunParallelJobs(jobs, jobs, [&](int i) { work(jobData + jobSize * static_cast<size_t>(i)); });
}

bool InitialiseFftwThreads() {
  if (fftw_init_threads() == 0) return false;
  fftw_threads_set_callback(PoolParallelLoop, nullptr);
  return true;
}

}  // namespace

std::mutex& FftwPlannerMutex() {
  // FFTW's thread support is switched on once, before the first plan; plans then choose their
  // own thread count with fftw_plan_with_nthreads under this lock.
  static std::mutex mutex;
  static const bool threadsReady = InitialiseFftwThreads();
  (void)threadsReady;
  return mutex;
}

void FftwPlanDeleter::operator()(fftw_plan_s* plan) const {
  std::lock_guard<std::mutex> lock(FftwPlannerMutex());
  fftw_destroy_plan(plan);
}

void* AllocatePlaneMemory(size_t bytes) {
  // 64 bytes suit every vector unit FFTW uses.
  const size_t alignment = bytes >= kHugePage ? kHugePage : 64;
  const size_t rounded = (bytes + alignment - 1) / alignment * alignment;
  void* p = std::aligned_alloc(alignment, rounded);
  // The whole rounded block, so that the last part of the buffer is a huge page too.
  if (p && alignment == kHugePage) madvise(p, rounded, MADV_HUGEPAGE);
  return p;
}

void FreePlaneMemory(void* p) { std::free(p); }

std::vector<double> NewPlane(size_t count) {
  // Room for whole huge pages less the allocator's header (glibc's 16 bytes before a mapped
  // block): the kernel maps large blocks on huge-page boundaries, so the block then covers
  // whole huge pages and neither end of the plane is left on small pages.
  constexpr size_t kHeader = 16;
  const size_t bytes =
      count * sizeof(double) < kHugePage
          ? count * sizeof(double)
          : ((count * sizeof(double) + kHeader + kHugePage - 1) & ~(kHugePage - 1)) - kHeader;
  std::vector<double> plane;
  plane.reserve(bytes / sizeof(double));
  const auto begin = reinterpret_cast<uintptr_t>(plane.data());
  const uintptr_t first = begin & ~(kHugePage - 1);
  const uintptr_t last = (begin + bytes + kHugePage - 1) & ~(kHugePage - 1);
  // Advice only: where the kernel declines (or the block is placed otherwise), the plane works
  // the same with small pages.
  if (bytes >= kHugePage) madvise(reinterpret_cast<void*>(first), last - first, MADV_HUGEPAGE);
  plane.resize(count);
  return plane;
}

fftw_plan PlanTransform(const std::function<fftw_plan(unsigned)>& make) {
  return make(FFTW_ESTIMATE);
}

FftwPlan AdoptFftwPlan(fftw_plan plan, const char* what) {
  if (!plan) throw Error(std::string("FFTW could not plan the ") + what);
  return FftwPlan(plan);
}

}  // namespace marlith
