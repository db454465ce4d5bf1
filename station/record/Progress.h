#pragma once

#include <chrono>
#include <string>

#include "record/Recorder.h"

namespace station {

// Progress of a recording on standard error: on a terminal one line, updated several times a
// second, elsewhere a line every second, and after a minute one every minute.
class Progress {
 public:
  Progress();
  ~Progress() { end(); }
  Progress(const Progress&) = delete;
  Progress& operator=(const Progress&) = delete;

  // Whether a line is due.
  bool isDue() const { return std::chrono::steady_clock::now() >= due_; }
  void print(const Recorder::Statistics& statistics, const std::string& segment,
             std::chrono::nanoseconds recorded);

  // Ends the terminal's line.
  void end();

  // "4.02 Mbit/s" of `bytes` in `duration`.
  static std::string bitRate(std::uint64_t bytes, std::chrono::nanoseconds duration);

 private:
  const bool onTerminal_;
  std::chrono::steady_clock::time_point due_{};
  bool lineOpen_ = false;
};

}  // namespace station
