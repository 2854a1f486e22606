// The worker pool runs every job once, whatever the caller: many calls in a row, calls from two
// threads at once, and calls made from inside a job.
#include "plane/worker_pool.h"

#include <gtest/gtest.h>

#include <atomic>
#include <thread>
#include <vector>

namespace marlith {
namespace {

TEST(WorkerPool, RunsEveryJobOnceInRepeatedNestedAndConcurrentCalls) {
  auto check = [](int calls, int nestedJobs) {
    for (int call = 0; call < calls; ++call) {
      const int jobs = 1 + call % 7;
      std::vector<std::atomic<int>> runs(static_cast<size_t>(jobs) * (1 + nestedJobs));
      RunParallelJobs(jobs, 2, [&](int job) {
        runs[job]++;
        // A call from inside a job runs on the job's own thread.
        RunParallelJobs(nestedJobs, 2, [&](int inner) { runs[jobs + job * nestedJobs + inner]++; });
      });
      for (size_t i = 0; i < runs.size(); ++i) {
        ASSERT_EQ(runs[i].load(), 1) << "call " << call << ", slot " << i;
      }
    }
  };
  check(2000, 0);
  check(200, 3);
  std::thread other([&] { check(2000, 0); });
  check(2000, 0);
  other.join();
}

}  // namespace
}  // namespace marlith
