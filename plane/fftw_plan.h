// RAII ownership of FFTW plans and the one lock under which every plan in the program is made
// and destroyed (FFTW's planner is not thread-safe; executing a plan is).
#pragma once

#include <fftw3.h>

#include <functional>
#include <memory>
#include <mutex>
#include <vector>

namespace marlith {

// The lock that guards FFTW's planner, shared by every subsystem that makes plans.
std::mutex& FftwPlannerMutex();

struct FftwPlanDeleter {
  void operator()(fftw_plan_s* plan) const;  // destroys under FftwPlannerMutex()
};
using FftwPlan = std::unique_ptr<fftw_plan_s, FftwPlanDeleter>;

// Makes a transform's plan as make(flags) with the planner flags every transform uses; the
// caller holds FftwPlannerMutex(). The flags are FFTW_ESTIMATE, a heuristic that picks the same
// plan for the same size, threads and alignment every time, so that the same input and options
// give the same bits whatever ran before (FFTW_MEASURE picks by timing, and a plan measured once
// and cached made a size's first run differ from its later ones in the last bits). Measured at
// 1000 x 1000 on two threads (bench/plan_bench): the transform pair is about a third slower than
// a measured plan's, and no measuring (1.3 to 1.6 s a size) is ever paid; see BENCHMARKS.md.
// No wisdom is imported or saved: FFTW_ESTIMATE would take up any measured wisdom present.
fftw_plan PlanTransform(const std::function<fftw_plan(unsigned)>& make);

// Wraps a plan made by the caller (who holds FftwPlannerMutex() while making it); throws
// marlith::Error naming what when FFTW returned no plan.
FftwPlan AdoptFftwPlan(fftw_plan plan, const char* what);

// The size of a transparent huge page on the machines we build for.
inline constexpr size_t kHugePage = size_t{2} << 20;

// FFTW-aligned storage for transform buffers and working planes. Blocks of kHugePage and more
// are aligned to it and offered to the kernel as transparent huge pages: first touching a
// working plane then takes one page fault per 2 MiB instead of one per 4 KiB.
void* AllocatePlaneMemory(size_t bytes);  // nullptr when the system refuses
void FreePlaneMemory(void* p);

struct FftwFreeDeleter {
  void operator()(void* p) const { FreePlaneMemory(p); }
};
template <typename T>
using FftwBuffer = std::unique_ptr<T[], FftwFreeDeleter>;

// Allocates count values of T (uninitialised) with AllocatePlaneMemory; throws std::bad_alloc
// on failure.
template <typename T>
FftwBuffer<T> AllocateFftwBuffer(size_t count) {
  void* p = AllocatePlaneMemory(sizeof(T) * (count ? count : 1));
  if (!p) throw std::bad_alloc();
  return FftwBuffer<T>(static_cast<T*>(p));
}

// A plane of count zeros in memory offered to the kernel as transparent huge pages: filling
// it takes a page fault per 2 MiB instead of one per 4 KiB. For the large planes a run
// allocates once.
std::vector<double> NewPlane(size_t count);

}  // namespace marlith
