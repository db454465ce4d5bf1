#pragma once

#include <stdexcept>
#include <string>

namespace station {

// The program's exit code; the help says what each means.
enum class ExitCode : int {
  Ok = 0,
  Internal = 1,
  Usage = 2,
  NoPlatform = 3,
  CodecNotUsable = 4,
  Source = 5,
  Output = 6,
  DiskFull = 7,
  Pipeline = 8,
  Incomplete = 9,
  Address = 10,
  Interrupted = 130,
};

// A failure that ends the command: one line for the user and the exit code.
class StationError : public std::runtime_error {
 public:
  StationError(ExitCode code, const std::string& line) : std::runtime_error(line), code_(code) {}
  ExitCode code() const { return code_; }

 private:
  ExitCode code_;
};

}  // namespace station
