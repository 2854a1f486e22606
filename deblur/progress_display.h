// What marlith-deblur prints on standard error while it runs: a progress bar (phase, percent,
// time left) over the images of the run, and the run's messages, which clear the bar first.
// Every member may be called from several threads at once.
#pragma once

#include <chrono>
#include <cstdio>
#include <mutex>
#include <string>
#include <string_view>
#include <vector>

namespace marlith {

// text as it may go to a terminal: control characters (escape sequences, bells, carriage
// returns, from a binary file's bytes or a file's name) written as \xNN, and past 1000 bytes cut
// with "...". Other bytes, UTF-8 included, pass as they are.
std::string Printable(std::string_view text);

class ProgressDisplay {
 public:
  enum class Mode {
    kOff,       // messages only
    kTerminal,  // one line redrawn in place, at most ten times a second
    kLines,     // a new line at every tenth of the run and every change of phase
  };

  // Shows progress over images images on stream (standard error; tests may pass a file).
  ProgressDisplay(Mode mode, int images, std::FILE* stream = stderr);
  ~ProgressDisplay();
  ProgressDisplay(const ProgressDisplay&) = delete;
  ProgressDisplay& operator=(const ProgressDisplay&) = delete;

  // Image image (0-based) is in phase, fraction of its own work done (in [0, 1]).
  void Update(int image, std::string_view name, std::string_view phase, double fraction);
  // Image image is done with (restored or failed): it counts as whole.
  void Finish(int image);
  // Prints line and a newline, clearing the bar first (it is redrawn at the next update).
  void Message(const std::string& line);
  // Clears the bar for good.
  void Close();

 private:
  struct Slot {
    std::string name, phase;
    double fraction = 0.0;
    bool running = false, finished = false;
  };
  std::string RenderLocked() const;
  void DrawLocked(bool force);
  void ClearLocked();

  const Mode mode_;
  std::FILE* const stream_;
  const std::chrono::steady_clock::time_point start_ = std::chrono::steady_clock::now();
  std::mutex mutex_;
  std::vector<Slot> slots_;
  std::chrono::steady_clock::time_point lastDraw_{};
  bool barShown_ = false;
  int lastTenth_ = -1;
  std::string lastPhase_;
};

// "1:05" or "2:03:04": a duration in whole seconds.
std::string FormatDuration(double seconds);

}  // namespace marlith
