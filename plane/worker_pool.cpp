#include "plane/worker_pool.h"

#include <algorithm>
#include <atomic>
#include <chrono>
#include <condition_variable>
#include <cstdint>
#include <mutex>
#include <system_error>
#include <thread>
#include <vector>

namespace marlith {
namespace {

// How long a waiting thread checks for news before it sleeps. Passes follow each other within
// microseconds inside a solve, so a short wait catches the next one without a sleep and a
// wake-up; between solves and phases the workers sleep.
constexpr std::chrono::microseconds kSpinTime(50);

inline void CpuRelax() {
#if defined(__x86_64__) || defined(__i386__)
  __builtin_ia32_pause();
#endif
}

// Spins until ready() or kSpinTime has passed; returns ready().
template <typename Ready>
bool SpinFor(Ready ready) {
  const auto until = std::chrono::steady_clock::now() + kSpinTime;
  for (int i = 1;; ++i) {
    if (ready()) return true;
    CpuRelax();
    if (i % 64 == 0 && std::chrono::steady_clock::now() > until) return ready();
  }
}

thread_local bool insideJob = false;

// A call's state in one word, so that a worker reads a consistent view of it: the call's
// generation, how many workers help, the number of jobs and the next job to take. A worker
// claims a job by advancing the word with compare-and-swap, which fails once the generation has
// moved on: a worker late for a call can never run a job of the next one.
struct Ticket {
  static constexpr int kGenerationShift = 40, kHelpersShift = 32, kJobsShift = 16;
  static uint64_t Make(uint64_t generation, int helpers, int jobs) {
    return (generation << kGenerationShift) | (static_cast<uint64_t>(helpers) << kHelpersShift) |
           (static_cast<uint64_t>(jobs) << kJobsShift);
  }
  static uint64_t Generation(uint64_t t) { return t >> kGenerationShift; }
  static int Helpers(uint64_t t) { return static_cast<int>((t >> kHelpersShift) & 0xff); }
  static int Jobs(uint64_t t) { return static_cast<int>((t >> kJobsShift) & 0xffff); }
  static int Next(uint64_t t) { return static_cast<int>(t & 0xffff); }
};

class Pool {
 public:
  static constexpr int kMaxJobs = 0xffff, kMaxHelpers = 0xff;

  static Pool& Instance() {
    // Never destroyed: workers may still be asleep in it when the process exits.
    static Pool* pool = new Pool();
    return *pool;
  }

  // Returns false (having run nothing) when the pool is in use by another thread.
  bool TryRun(int jobs, int threads, const std::function<void(int)>& work) {
    std::unique_lock<std::mutex> use(useMutex_, std::try_to_lock);
    if (!use.owns_lock()) return false;
    const int helpers = StartWorkers(std::min({jobs, threads, kMaxHelpers + 1}) - 1);
    work_ = &work;
    done_.store(0, std::memory_order_relaxed);
    {
      std::lock_guard<std::mutex> lock(mutex_);
      generation_ = (generation_ + 1) & 0xffffff;  // the ticket's 24 bits
      ticket_.store(Ticket::Make(generation_, helpers, jobs), std::memory_order_release);
    }
    wake_.notify_all();
    TakeJobs(generation_);
    auto finished = [&] { return done_.load(std::memory_order_acquire) == jobs; };
    if (!SpinFor(finished)) {
      std::unique_lock<std::mutex> lock(mutex_);
      finished_.wait(lock, finished);
    }
    return true;
  }

 private:
  // Starts workers until there are count and returns how many of them there are: a thread the
  // system refuses (too many threads or processes for the user) leaves the work to fewer
  // threads rather than failing it.
  int StartWorkers(int count) {
    try {
      while (static_cast<int>(workers_.size()) < count) {
        const int index = static_cast<int>(workers_.size());
        workers_.emplace_back([this, index] { WorkerLoop(index); });
        workers_.back().detach();
      }
    } catch (const std::system_error&) {
    }
    return std::min(count, static_cast<int>(workers_.size()));
  }

  // Claims and runs jobs of the given generation until none is left.
  void TakeJobs(uint64_t generation) {
    insideJob = true;
    uint64_t t = ticket_.load(std::memory_order_acquire);
    while (Ticket::Generation(t) == generation && Ticket::Next(t) < Ticket::Jobs(t)) {
      if (!ticket_.compare_exchange_weak(t, t + 1, std::memory_order_acq_rel)) continue;
      const int jobs = Ticket::Jobs(t);
      (*work_)(Ticket::Next(t));
      if (done_.fetch_add(1, std::memory_order_acq_rel) + 1 == jobs) {
        std::lock_guard<std::mutex> lock(mutex_);
        finished_.notify_all();
      }
      t = ticket_.load(std::memory_order_acquire);
    }
    insideJob = false;
  }

  void WorkerLoop(int index) {
    uint64_t seen = 0;
    for (;;) {
      auto news = [&] {
        return Ticket::Generation(ticket_.load(std::memory_order_acquire)) != seen;
      };
      if (!SpinFor(news)) {
        std::unique_lock<std::mutex> lock(mutex_);
        wake_.wait(lock, news);
      }
      const uint64_t t = ticket_.load(std::memory_order_acquire);
      seen = Ticket::Generation(t);
      // Only as many workers as the call asked for take part.
      if (index < Ticket::Helpers(t)) TakeJobs(seen);
    }
  }

  std::mutex useMutex_;  // one caller at a time
  std::mutex mutex_;     // guards the sleeps
  std::condition_variable wake_, finished_;
  std::vector<std::thread> workers_;
  uint64_t generation_ = 0;  // the caller's count of calls
  std::atomic<uint64_t> ticket_{0};
  std::atomic<int> done_{0};
  const std::function<void(int)>* work_ = nullptr;
};

}  // namespace

int ResolveThreads(int threads) {
  return threads > 0 ? threads
                     : static_cast<int>(std::max(1u, std::thread::hardware_concurrency()));
}

void RunParallelJobs(int jobs, int threads, const std::function<void(int)>& work) {
  if (jobs <= 0) return;
  threads = ResolveThreads(threads);
  if (jobs > 1 && jobs <= Pool::kMaxJobs && threads > 1 && !insideJob &&
      Pool::Instance().TryRun(jobs, threads, work)) {
    return;
  }
  for (int job = 0; job < jobs; ++job) work(job);
}

}  // namespace marlith
