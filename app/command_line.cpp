#include "app/command_line.h"

#include <cstdio>

namespace marlith {

int RunCommandLine(int argc, const char* const* argv) {
  (void)argv;
  if (argc < 5) {
    std::printf(
        "Usage: marlith.exe inputImageFile kernelFile outputImageFile boundaryType noiseStr "
        "localPriorWeight \n");
    return -1;
  }
  return 0;
}

}  // namespace marlith
