#pragma once

#include <string>

#include "base/Command.h"

namespace station {

// Checks of "doctor" that load plugins or touch drivers.
enum class Check {
  Open,         // an element: does it reach READY?
  Description,  // a description: what is wrong with it, and which elements are in it?
  Frames,       // a number of frames: which memory has them?
  Trial,        // a use and a codec: do pictures come back as they were sent?
  Load,         // a plugin's file: why does it not load?
  Device,       // a device node: what is it?
};

// In arguments of the program.
const char* nameOf(Check check);

// In front of the line with a check's result: drivers write to standard output, too.
constexpr const char* kResultMark = "@doctor ";

// The hidden command that runs one check in its process, a child of "doctor", and prints the
// result.
class DoctorCheck : public Command {
 public:
  CLI::App& addOptions(CLI::App& program) override;
  void run() override;

 private:
  std::string board_;
  std::string check_;
  std::string argument_;
};

}  // namespace station
