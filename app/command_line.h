// The console tool's entry: six positional arguments, one timed file-mode run.
#pragma once

namespace marlith {

// Runs the command line argv[0..argc) and returns the process exit code.
int RunCommandLine(int argc, const char* const* argv);

}  // namespace marlith
