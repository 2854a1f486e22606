#include "app/command_line.h"

#include <cerrno>
#include <chrono>
#include <climits>
#include <cstdio>
#include <cstdlib>
#include <string>

#include "app/file_mode_run.h"

namespace marlith {
namespace {

// atoi's reading (leading blanks, sign, digits; anything else ends it; no digits give 0) without
// its undefined behaviour on overflow: out-of-range values saturate.
int32_t ReadInteger(const char* text) {
  if (!text) return 0;
  errno = 0;
  const long value = std::strtol(text, nullptr, 10);
  if (value > INT32_MAX) return INT32_MAX;
  if (value < INT32_MIN) return INT32_MIN;
  return static_cast<int32_t>(value);
}

// atof's reading; an absent argument reads as the empty text does, 0.0.
double ReadReal(const char* text) { return text ? std::strtod(text, nullptr) : 0.0; }

}  // namespace

int RunCommandLine(int argc, const char* const* argv) {
  // Five entries (the program name and four arguments) pass this test although six positions
  // are read: the threshold is kept, and a missing number reads as 0.0.
  if (argc < 5) {
    std::printf(
        "Usage: marlith.exe inputImageFile kernelFile outputImageFile boundaryType noiseStr "
        "localPriorWeight \n");
    return -1;
  }
  const std::string inputImageFile = argv[1];
  const std::string kernelFile = argv[2];
  const std::string outputImageFile = argv[3];
  const int32_t boundaryType = ReadInteger(argv[4]);
  const double noise = ReadReal(argc > 5 ? argv[5] : nullptr);
  const double localPriorWeight = ReadReal(argc > 6 ? argv[6] : nullptr);

  const auto start = std::chrono::steady_clock::now();
  const int32_t result = RunFileModeEntry(inputImageFile, kernelFile, outputImageFile, boundaryType,
                                          noise, localPriorWeight);
  const std::chrono::duration<double> elapsed = std::chrono::steady_clock::now() - start;
  std::printf("time cost : %f\n", elapsed.count());
  std::fflush(stdout);
  return result;
}

}  // namespace marlith
