#pragma once

#include <string>

namespace simulated_board {

// Whether the environment variable SIMULATED_BOARD_FAULTS, "ELEMENT=FAULT,ELEMENT=FAULT,...", asks
// this element for this fault.
bool hasFault(const std::string& element, const std::string& fault);

}  // namespace simulated_board
