// A whole marlith-deblur run over parsed settings: outputs planned and checked, the kernel read
// once, the images restored (several at once with --jobs), messages and progress on standard
// error.
#pragma once

#include <atomic>

#include "deblur/deblur_options.h"

namespace marlith {

// Exit statuses.
constexpr int kExitSuccess = 0;
constexpr int kExitFailure = 1;  // an image, the kernel or an output could not be used
constexpr int kExitUsage = 2;

// Runs settings and returns the exit status: kExitSuccess when every image was restored,
// kExitFailure when any failed (the others are still restored), kExitUsage for a command line
// whose parts contradict each other (found before anything is read), and 128 + the signal's
// number when interrupt turns non-zero (the images running stop at their next progress report,
// none is written partly, no new one starts). interrupt holds a signal number or 0.
int RunDeblur(const DeblurSettings& settings, const std::atomic<int>& interrupt);

// Prints "marlith-deblur: message" and the pointer to --help on standard error.
void PrintUsageError(const std::string& message);

}  // namespace marlith
