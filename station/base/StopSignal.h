#pragma once

namespace station {

// Ctrl-C and SIGTERM as a request to stop, while this object lives: the first one only makes
// requested() true, the second one ends the process at once with exit code 130.
// One object at a time; requested() from any thread.
class StopSignal {
 public:
  StopSignal();
  ~StopSignal();
  StopSignal(const StopSignal&) = delete;
  StopSignal& operator=(const StopSignal&) = delete;

  bool requested() const;
};

// From now on Ctrl-C and SIGTERM end the process at once with exit code 130.
void exitOnSignal();

}  // namespace station
