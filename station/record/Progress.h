#pragma once

#include <chrono>
#include <string>

#include "record/Recorder.h"

namespace station {

// How a recording goes, on standard error: one line that is written over several times a second on
// a terminal, a plain line every second elsewhere.
class Progress {
 public:
  Progress();

  // Cheap to call for every frame: prints only when a new line is due.
  void update(const Recorder& recorder, std::chrono::nanoseconds recorded);

  // Leaves the terminal's line, so that what is printed next stands on its own.
  void end();

  // "4.02 Mbit/s" of `bytes` in `duration`.
  static std::string bitRate(std::uint64_t bytes, std::chrono::nanoseconds duration);

 private:
  const bool onTerminal_;
  std::chrono::steady_clock::time_point due_{};
  bool lineOpen_ = false;
};

}  // namespace station
