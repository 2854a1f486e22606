// The threads that the solver's passes and FFTW's parallel loops run on: one process-wide pool
// whose workers wait for work briefly and then sleep, so that no core spins or yields between
// passes and rounds. (OpenMP's workers spin for some milliseconds after each parallel region
// unless OMP_WAIT_POLICY is set before the program starts; on a busy machine that spinning
// took the cores from the threads with work and doubled the run time.)
#pragma once

#include <algorithm>
#include <cstddef>
#include <functional>

namespace marlith {

// Runs work(job) for every job in [0, jobs) and returns when all have returned. The calling
// thread takes jobs too; so do up to threads - 1 of the pool's workers (threads <= 0: one per
// core). Which thread runs a job is not fixed, so work must depend on the job number only. A
// call made from inside a job, or while another thread is using the pool, runs its jobs on the
// calling thread in order. work must not throw.
void RunParallelJobs(int jobs, int threads, const std::function<void(int job)>& work);

// The threads a request for threads stands for: threads <= 0 asks for one per core.
int ResolveThreads(int threads);

// Runs work(begin, end) over [0, count) in contiguous blocks in job order, one block per thread
// (threads <= 0: one per core; 1: the whole range on the calling thread). work must not throw.
template <typename Work>
void RunParallelRanges(std::ptrdiff_t count, int threads, const Work& work) {
  const int jobs = static_cast<int>(std::min<std::ptrdiff_t>(ResolveThreads(threads), count));
  if (jobs <= 1) {
    if (count > 0) work(std::ptrdiff_t{0}, count);
    return;
  }
  RunParallelJobs(jobs, jobs, [&](int job) { work(count * job / jobs, count * (job + 1) / jobs); });
}

// Runs work(i) for every i in [0, count), in contiguous blocks as RunParallelRanges does.
template <typename Work>
void RunParallelFor(std::ptrdiff_t count, int threads, const Work& work) {
  RunParallelRanges(count, threads, [&](std::ptrdiff_t begin, std::ptrdiff_t end) {
    for (std::ptrdiff_t i = begin; i < end; ++i) work(i);
  });
}

// The first and one-past-last of count items that job of jobs takes: contiguous blocks in job
// order, sizes differing by at most one.
inline int JobBegin(int count, int job, int jobs) {
  return static_cast<int>(static_cast<long long>(count) * job / jobs);
}

}  // namespace marlith
