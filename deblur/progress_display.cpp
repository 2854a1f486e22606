#include "deblur/progress_display.h"

#include <algorithm>
#include <cmath>

namespace marlith {

namespace {

constexpr int kBarWidth = 24;
constexpr auto kRedrawInterval = std::chrono::milliseconds(100);
constexpr size_t kNameWidth = 24;

// The name cut to its last kNameWidth characters, so that a long path keeps its file name.
std::string ShortName(const std::string& name) {
  if (name.size() <= kNameWidth) return name;
  return "..." + name.substr(name.size() - (kNameWidth - 3));
}

}  // namespace

std::string Printable(std::string_view text) {
  constexpr size_t kLongest = 1000;
  std::string shown;
  for (const char c : text.substr(0, kLongest)) {
    const auto byte = static_cast<unsigned char>(c);
    if (byte >= 0x20 && byte != 0x7f) {
      shown += c;
    } else {
      char escaped[5];
      std::snprintf(escaped, sizeof escaped, "\\x%02x", byte);
      shown += escaped;
    }
  }
  if (text.size() > kLongest) shown += "...";
  return shown;
}

std::string FormatDuration(double seconds) {
  const long total = std::lround(std::max(0.0, seconds));
  char text[32];
  if (total >= 3600)
    std::snprintf(text, sizeof text, "%ld:%02ld:%02ld", total / 3600, total / 60 % 60, total % 60);
  else
    std::snprintf(text, sizeof text, "%ld:%02ld", total / 60, total % 60);
  return text;
}

ProgressDisplay::ProgressDisplay(Mode mode, int images, std::FILE* stream)
    : mode_(mode), stream_(stream), slots_(static_cast<size_t>(std::max(images, 1))) {}

ProgressDisplay::~ProgressDisplay() { Close(); }

void ProgressDisplay::Update(int image, std::string_view name, std::string_view phase,
                             double fraction) {
  std::lock_guard lock(mutex_);
  Slot& slot = slots_.at(static_cast<size_t>(image));
  if (slot.finished) return;
  const bool newPhase = slot.phase != phase;
  slot.name = Printable(name);
  slot.phase = phase;
  slot.fraction = std::clamp(fraction, 0.0, 1.0);
  slot.running = true;
  DrawLocked(newPhase);
}

void ProgressDisplay::Finish(int image) {
  std::lock_guard lock(mutex_);
  Slot& slot = slots_.at(static_cast<size_t>(image));
  slot.finished = true;
  slot.running = false;
  DrawLocked(true);
}

void ProgressDisplay::Message(const std::string& line) {
  std::lock_guard lock(mutex_);
  ClearLocked();
  std::fprintf(stream_, "%s\n", Printable(line).c_str());
  std::fflush(stream_);
}

void ProgressDisplay::Close() {
  std::lock_guard lock(mutex_);
  ClearLocked();
}

std::string ProgressDisplay::RenderLocked() const {
  double done = 0.0;
  int finished = 0, running = 0;
  const Slot* current = nullptr;
  for (const Slot& s : slots_) {
    done += s.finished ? 1.0 : s.fraction;
    finished += s.finished;
    if (s.running) {
      ++running;
      current = &s;
    }
  }
  const double fraction = done / static_cast<double>(slots_.size());

  std::string label;
  if (slots_.size() == 1) {
    label = slots_[0].phase;
  } else {
    label = std::to_string(finished) + "/" + std::to_string(slots_.size()) + " done";
    if (running == 1) label += ", " + ShortName(current->name) + ": " + current->phase;
  }
  const int filled = static_cast<int>(fraction * kBarWidth);
  std::string text = label + "  [" + std::string(static_cast<size_t>(filled), '#') +
                     std::string(static_cast<size_t>(kBarWidth - filled), '.') + "] ";
  char percent[16];
  std::snprintf(percent, sizeof percent, "%3d %%", static_cast<int>(fraction * 100.0));
  text += percent;
  const double elapsed =
      std::chrono::duration<double>(std::chrono::steady_clock::now() - start_).count();
  // A rate read from less than a second or a percent of the work says little.
  if (fraction >= 0.01 && fraction < 1.0 && elapsed >= 1.0)
    text += "  " + FormatDuration(elapsed * (1.0 - fraction) / fraction) + " left";
  return text;
}

void ProgressDisplay::DrawLocked(bool force) {
  if (mode_ == Mode::kOff) return;
  const auto now = std::chrono::steady_clock::now();
  if (mode_ == Mode::kTerminal) {
    if (!force && now - lastDraw_ < kRedrawInterval) return;
    lastDraw_ = now;
    std::fprintf(stream_, "\r%s\x1b[K", RenderLocked().c_str());
    std::fflush(stream_);
    barShown_ = true;
    return;
  }
  double done = 0.0;
  for (const Slot& s : slots_) done += s.finished ? 1.0 : s.fraction;
  const int tenth = static_cast<int>(done / static_cast<double>(slots_.size()) * 10.0);
  const std::string phase = slots_.size() == 1 ? slots_[0].phase : std::string();
  if (tenth == lastTenth_ && phase == lastPhase_) return;
  lastTenth_ = tenth;
  lastPhase_ = phase;
  std::fprintf(stream_, "%s\n", RenderLocked().c_str());
  std::fflush(stream_);
}

void ProgressDisplay::ClearLocked() {
  if (!barShown_) return;
  std::fprintf(stream_, "\r\x1b[K");
  std::fflush(stream_);
  barShown_ = false;
}

}  // namespace marlith
