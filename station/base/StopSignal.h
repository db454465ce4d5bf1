#pragma once

#include <vector>

namespace station {

// The signals that ask the program to stop: SIGINT (Ctrl-C), SIGTERM, and SIGHUP unless it was
// ignored when the program started, as under nohup.
const std::vector<int>& stopSignals();

// Their first one as a request, while this object lives: it only makes requested() true, the second
// one ends the process at once with exit code 130.
// One object at a time; requested() from any thread.
class StopSignal {
 public:
  StopSignal();
  ~StopSignal();
  StopSignal(const StopSignal&) = delete;
  StopSignal& operator=(const StopSignal&) = delete;

  bool requested() const;
};

// From now on these signals end the process at once with exit code 130.
void exitOnSignal();

// From now on writing reports an error where a signal would end the process: to a pipe without a
// reader, and beyond the largest size of a file.
void ignoreWriteSignals();

}  // namespace station
