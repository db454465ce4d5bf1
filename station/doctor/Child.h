#pragma once

#include <chrono>
#include <string>
#include <vector>

namespace station {

// How a child process ended and all that it wrote, standard error included, as valid UTF-8.
struct ChildResult {
  enum class End { Exited, Signalled, TimedOut, NotStarted };

  End end = End::NotStarted;
  int code = 0;  // exit code or signal
  std::string output;
};

// Runs a program and waits for its end, or kills it after `limit`. One that cannot be killed, as
// a driver may hold it, is left behind. Any thread.
ChildResult runTimed(const std::vector<std::string>& arguments, std::chrono::milliseconds limit);

}  // namespace station
