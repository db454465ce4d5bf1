#pragma once

#include <vector>

#include "base/Command.h"

namespace station {

// Parses the arguments, runs the command that they name, and returns the program's exit code. A
// failure is one line on standard error.
int runCommandLine(int argc, char** argv, const std::vector<Command*>& commands);

}  // namespace station
