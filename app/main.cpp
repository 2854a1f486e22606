#include <signal.h>
#include <unistd.h>

#include "app/command_line.h"
#include "image/file_bytes.h"

namespace {

// SIGINT and SIGTERM end the run at once, as a second Ctrl-C does marlith-deblur's, with the
// conventional status 128 + the signal's number. A file being written then has no name yet (or
// its hidden temporary name is removed here): the output is left as it was, nothing beside it.
extern "C" void OnInterrupt(int signal) {
  marlith::RemoveTemporaryFiles();
  static const char kMessage[] = "\nmarlith: interrupted, no file written\n";
  // write() is safe in a signal handler; its result cannot be acted on here.
  [[maybe_unused]] const ssize_t ignored = write(STDERR_FILENO, kMessage, sizeof kMessage - 1);
  _exit(128 + signal);
}

}  // namespace

int main(int argc, char** argv) {
  struct sigaction action = {};
  action.sa_handler = OnInterrupt;
  sigemptyset(&action.sa_mask);
  sigaddset(&action.sa_mask, SIGINT);
  sigaddset(&action.sa_mask, SIGTERM);
  sigaction(SIGINT, &action, nullptr);
  sigaction(SIGTERM, &action, nullptr);
  return marlith::RunCommandLine(argc, argv);
}
