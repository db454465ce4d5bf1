#pragma once

#include <chrono>
#include <string>
#include <vector>

namespace station {

// How a child process ended, and its standard output and error as valid UTF-8.
struct ChildResult {
  enum class End { Exited, Signalled, TimedOut, NotStarted };

  End end = End::NotStarted;
  int code = 0;  // exit code or signal
  std::string output;
};

// Runs a program until it ends, or kills it after `limit`; a child that a driver keeps from dying
// is abandoned. Any thread.
ChildResult runTimed(const std::vector<std::string>& arguments, std::chrono::milliseconds limit);

}  // namespace station
