// A whole run as the six-argument command does it (load, engine, save), in this process and with
// a choice of margins, for the benchmarks: what the frozen command cannot be asked to do.
#pragma once

#include <string>

#include "engine/frequency_solver_run.h"

namespace marlith::bench {

struct EngineFileRun {
  int workWidth = 0, workHeight = 0;  // the working plane the solves ran at
  int innerRounds = 0;                // inner rounds of all channels
  double seconds = 0.0;               // load + solve + save
  double marginSeconds = 0.0;         // of which the smooth margins (boundary type 1)
};

// The command's run of blurred and kernel into out (user's noise and weight, unscaled), with
// variant 1 and the given margins. Throws marlith::Error when an image cannot be loaded.
EngineFileRun RunEngineOnFiles(const std::string& blurred, const std::string& kernel,
                               const std::string& out, int boundaryType, double noise,
                               double weight, MarginSize margins);

// The working size of such a run, without running it.
void WorkingSize(int width, int height, int preparedKernelWidth, int preparedKernelHeight,
                 int boundaryType, MarginSize margins, int& workWidth, int& workHeight);

}  // namespace marlith::bench
