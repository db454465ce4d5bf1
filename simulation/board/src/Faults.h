#pragma once

#include <string>

namespace simulated_board {

// Whether the environment variable SIMULATED_BOARD_FAULTS, "ELEMENT=FAULT,ELEMENT=FAULT,...",
// requests this fault of this element. Logs a fault that it does.
bool hasFault(const std::string& element, const std::string& fault);

}  // namespace simulated_board
