// The six-argument command's run with fast margins (working sides widened to 2, 3, 5 and
// 7-smooth sizes), for bench/speed.sh until a command line offers the choice. Prints the
// command's "time cost" line and the working plane and inner rounds.
// Usage: marlith-fast-margins blurred kernel out boundaryType noise localPriorWeight
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <exception>

#include "bench/engine_file_run.h"

int main(int argc, char** argv) {
  if (argc != 7) {
    std::fprintf(stderr, "usage: marlith-fast-margins blurred kernel out boundary noise weight\n");
    return 2;
  }
  try {
    const auto run = marlith::bench::RunEngineOnFiles(argv[1], argv[2], argv[3], std::atoi(argv[4]),
                                                      std::atof(argv[5]), std::atof(argv[6]),
                                                      marlith::MarginSize::kFast);
    std::printf("working plane %d x %d, %d inner rounds, margins %.3f s\n", run.workWidth,
                run.workHeight, run.innerRounds, run.marginSeconds);
    std::printf("time cost : %f\n", run.seconds);
  } catch (const std::exception& e) {
    std::printf("marlith-fast-margins: %s\n", e.what());
    return 1;
  }
  return 0;
}
