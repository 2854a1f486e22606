// Whole runs against the transform floor, measured in the same process: for each row the
// working size, the inner rounds of all channels, the time of one forward and one inverse
// transform at that size (the solver's FFTW_ESTIMATE plans, best of 15, measured after each run;
// the median is shown), the floor (rounds x that pair), the runs' best and median seconds, and the
// best and median of each run's ratio to the floor measured just after it.
//
// Usage: run_bench [--runs N | --floor-only] blurred kernel noise weight ROW...
//   ROW command:B[:PATH]  the six-argument command (default build/app/marlith) with boundary B,
//                         as a child process: wall time as a user's run has it
//   engine:B:exact|fast   load, engine and save in this process with exact or fast margins (the
//                         first run, untimed, counts the rounds and warms the plans)
// --floor-only skips the timed runs and prints, per row, one line "floor W H rounds pair floor"
// (seconds) for scripts. The output goes to a temporary file that is removed.
#include <unistd.h>

#include <algorithm>
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <string>
#include <thread>
#include <utility>
#include <vector>

#include "bench/engine_file_run.h"
#include "marlith/error.hpp"
#include "plane/fourier_transform.h"

namespace {

using namespace marlith;
using Clock = std::chrono::steady_clock;

double Seconds(Clock::time_point since) {
  return std::chrono::duration<double>(Clock::now() - since).count();
}

// One r2c and one c2r transform of W x H with measured plans, best of 15, in seconds.
double TransformPair(int W, int H, int threads) {
  const size_t n = static_cast<size_t>(W) * H;
  auto real = AllocateFftwBuffer<double>(n);
  auto spectrum = AllocateFftwBuffer<fftw_complex>(HalfSpectrumSize(W, H));
  fftw_plan forward, inverse;
  {
    std::lock_guard<std::mutex> lock(FftwPlannerMutex());
    fftw_plan_with_nthreads(threads);
    forward = fftw_plan_dft_r2c_2d(H, W, real.get(), spectrum.get(), FFTW_ESTIMATE);
    inverse = fftw_plan_dft_c2r_2d(H, W, spectrum.get(), real.get(), FFTW_ESTIMATE);
  }
  for (size_t i = 0; i < n; ++i) real[i] = static_cast<double>(i % 251) / 251.0;
  double best = 1e300;
  for (int rep = 0; rep < 15; ++rep) {
    const auto t0 = Clock::now();
    fftw_execute(forward);
    fftw_execute(inverse);
    best = std::min(best, Seconds(t0));
    for (size_t i = 0; i < n; ++i) real[i] *= 1.0 / static_cast<double>(n);
  }
  std::lock_guard<std::mutex> lock(FftwPlannerMutex());
  fftw_destroy_plan(forward);
  fftw_destroy_plan(inverse);
  return best;
}

// Wall time of one child run of command; false when it failed.
bool TimeCommand(const std::string& command, double& wall, double& reported) {
  const auto t0 = Clock::now();
  FILE* pipe = popen(command.c_str(), "r");
  if (!pipe) return false;
  char line[256];
  reported = -1.0;
  while (std::fgets(line, sizeof line, pipe)) {
    if (std::strncmp(line, "time cost : ", 12) == 0) reported = std::atof(line + 12);
  }
  const int status = pclose(pipe);
  wall = Seconds(t0);
  return status == 0 && reported >= 0.0;
}

struct Row {
  std::string label;
  std::vector<double> seconds, reported, margins;
  int W = 0, H = 0, rounds = 0;
  // Seconds of one forward and one inverse transform at W x H, measured after each run.
  std::vector<double> pairs;
};

double Median(std::vector<double> v) {
  std::sort(v.begin(), v.end());
  return v.empty() ? 0.0 : v[v.size() / 2];
}

}  // namespace

int main(int argc, char** argv) {
  int runs = 5, arg = 1;
  bool floorOnly = false;
  if (argc > 2 && std::strcmp(argv[1], "--runs") == 0) {
    runs = std::max(1, std::atoi(argv[2]));
    arg = 3;
  } else if (argc > 1 && std::strcmp(argv[1], "--floor-only") == 0) {
    floorOnly = true;
    runs = 0;
    arg = 2;
  }
  if (argc - arg < 5) {
    std::fprintf(stderr,
                 "usage: run_bench [--runs N] blurred kernel noise weight "
                 "command:B[:PATH]|engine:B:exact|fast ...\n");
    return 2;
  }
  const std::string blurred = argv[arg], kernel = argv[arg + 1];
  const double noise = std::atof(argv[arg + 2]), weight = std::atof(argv[arg + 3]);
  const int threads = static_cast<int>(std::max(1u, std::thread::hardware_concurrency()));
  char folder[] = "/tmp/run_bench.XXXXXX";
  if (!mkdtemp(folder)) return 1;
  const std::string out = std::string(folder) + "/out.png";

  std::vector<Row> rows;
  try {
    for (int a = arg + 4; a < argc; ++a) {
      Row row;
      row.label = argv[a];
      const std::string word = argv[a];
      const bool command = word.rfind("command:", 0) == 0;
      if (!command && word.rfind("engine:", 0) != 0) throw Error("unknown row " + word);
      const size_t colon = word.find(':');
      const int boundary = std::atoi(word.c_str() + colon + 1);
      const size_t second = word.find(':', colon + 1);
      const std::string rest = second == std::string::npos ? "" : word.substr(second + 1);
      const MarginSize margins = rest == "fast" ? MarginSize::kFast : MarginSize::kExact;
      // An untimed in-process run counts the rounds (for the command: exact margins, as it has).
      const bench::EngineFileRun first =
          bench::RunEngineOnFiles(blurred, kernel, out, boundary, noise, weight, margins);
      row.W = first.workWidth;
      row.H = first.workHeight;
      row.rounds = first.innerRounds;
      for (int r = 0; r < runs; ++r) {
        if (command) {
          const std::string exe = rest.empty() ? "build/app/marlith" : rest;
          const std::string line = exe + " '" + blurred + "' '" + kernel + "' '" + out + "' " +
                                   std::to_string(boundary) + " " + argv[arg + 2] + " " +
                                   argv[arg + 3] + " 2>/dev/null";
          double wall, reported;
          if (!TimeCommand(line, wall, reported)) throw Error("the command failed: " + line);
          row.seconds.push_back(wall);
          row.reported.push_back(reported);
        } else {
          const auto run =
              bench::RunEngineOnFiles(blurred, kernel, out, boundary, noise, weight, margins);
          row.seconds.push_back(run.seconds);
          if (boundary != 0) row.margins.push_back(run.marginSeconds);
        }
        // The floor is measured again after each run, so that a change in the machine's speed
        // (a shared virtual machine's varies by half within seconds) shows in both.
        row.pairs.push_back(TransformPair(row.W, row.H, threads));
      }
      if (row.pairs.empty()) row.pairs.push_back(TransformPair(row.W, row.H, threads));
      rows.push_back(std::move(row));
      std::fprintf(stderr, "done: %s\n", rows.back().label.c_str());
    }
  } catch (const std::exception& e) {
    std::fprintf(stderr, "run_bench: %s\n", e.what());
    std::remove(out.c_str());
    rmdir(folder);
    return 1;
  }
  std::remove(out.c_str());
  rmdir(folder);

  if (floorOnly) {
    for (const Row& row : rows) {
      const double pair = Median(row.pairs);
      std::printf("floor %d %d %d %.6f %.6f\n", row.W, row.H, row.rounds, pair, pair * row.rounds);
    }
    return 0;
  }
  std::printf("%s, noise %s, weight %s, %d runs a row, %d threads\n", blurred.c_str(),
              argv[arg + 2], argv[arg + 3], runs, threads);
  std::printf(
      "| row | working plane | rounds | pair ms | floor s | best s | median s | best / floor | "
      "median / floor | median / first row |\n|---|---|---:|---:|---:|---:|---:|---:|---:|---:|\n");
  for (const Row& row : rows) {
    const double pair = Median(row.pairs), floor = pair * row.rounds;
    const double best = *std::min_element(row.seconds.begin(), row.seconds.end());
    const double median = Median(row.seconds);
    // Each run against the floor measured just after it.
    std::vector<double> ratios;
    for (size_t r = 0; r < row.seconds.size(); ++r)
      ratios.push_back(row.seconds[r] / (row.pairs[r] * row.rounds));
    std::printf("| %s | %d x %d | %d | %.2f | %.3f | %.3f | %.3f | %.2f | %.2f | %.2f |\n",
                row.label.c_str(), row.W, row.H, row.rounds, pair * 1e3, floor, best, median,
                *std::min_element(ratios.begin(), ratios.end()), Median(ratios),
                median / Median(rows.front().seconds));
  }
  for (const Row& row : rows) {
    if (row.margins.empty()) continue;
    std::printf("%s: of which the margins took best %.3f s, median %.3f s\n", row.label.c_str(),
                *std::min_element(row.margins.begin(), row.margins.end()), Median(row.margins));
  }
  for (const Row& row : rows) {
    if (row.reported.empty()) continue;
    std::printf("%s: time cost lines best %.3f s, median %.3f s (wall includes process start)\n",
                row.label.c_str(), *std::min_element(row.reported.begin(), row.reported.end()),
                Median(row.reported));
  }
  return 0;
}
