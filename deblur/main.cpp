// marlith-deblur: restores image files blurred by a known blur kernel.
#include <signal.h>
#include <unistd.h>

#include <atomic>
#include <cstdio>
#include <new>

#include "deblur/deblur_options.h"
#include "deblur/deblur_run.h"
#include "deblur/progress_display.h"
#include "image/file_bytes.h"

namespace {

// The number of the first SIGINT or SIGTERM received, or 0. The running images stop at their
// next progress report; a second signal ends the process at once, removing the temporary name
// of any file being written.
std::atomic<int> gInterrupt{0};
static_assert(std::atomic<int>::is_always_lock_free);

extern "C" void OnInterrupt(int signal) {
  if (gInterrupt.exchange(signal) != 0) {
    marlith::RemoveTemporaryFiles();
    _exit(128 + signal);
  }
  static const char kMessage[] =
      "\nmarlith-deblur: stopping (no file is left half-written); press Ctrl-C again to stop at "
      "once\n";
  // write() is safe in a signal handler; its result cannot be acted on here.
  [[maybe_unused]] const ssize_t ignored = write(STDERR_FILENO, kMessage, sizeof kMessage - 1);
}

void CatchInterrupts() {
  struct sigaction action = {};
  action.sa_handler = OnInterrupt;
  sigemptyset(&action.sa_mask);
  sigaddset(&action.sa_mask, SIGINT);
  sigaddset(&action.sa_mask, SIGTERM);
  action.sa_flags = SA_RESTART;
  sigaction(SIGINT, &action, nullptr);
  sigaction(SIGTERM, &action, nullptr);
}

}  // namespace

int main(int argc, char** argv) {
  try {
    const marlith::ParsedCommandLine parsed = marlith::ParseDeblurCommandLine(argc, argv);
    switch (parsed.action) {
      case marlith::ParsedCommandLine::Action::kHelp:
        std::fputs(marlith::DeblurHelpText().c_str(), stdout);
        return std::fflush(stdout) == 0 ? 0 : 1;
      case marlith::ParsedCommandLine::Action::kVersion:
        std::printf("%s\n", marlith::DeblurVersionText().c_str());
        return std::fflush(stdout) == 0 ? 0 : 1;
      case marlith::ParsedCommandLine::Action::kUsageError:
        marlith::PrintUsageError(parsed.error);
        return marlith::kExitUsage;
      case marlith::ParsedCommandLine::Action::kRun:
        break;
    }
    CatchInterrupts();
    return marlith::RunDeblur(parsed.settings, gInterrupt);
  } catch (const std::bad_alloc&) {
    std::fputs("marlith-deblur: not enough memory\n", stderr);
  } catch (const std::exception& e) {
    std::fprintf(stderr, "marlith-deblur: %s\n", marlith::Printable(e.what()).c_str());
  }
  return marlith::kExitFailure;
}
