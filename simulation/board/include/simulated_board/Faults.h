#pragma once

#include <string>

namespace simulated_board {

// Whether the environment variable SIMULATED_BOARD_FAULTS, "ELEMENT=FAULT,ELEMENT=FAULT,...",
// requests this fault of this element. Logs a fault that it does.
bool hasFault(const std::string& element, const std::string& fault);

// The rest of a fault "FAULT:REST" that is requested; empty for none.
std::string faultText(const std::string& element, const std::string& fault);

// The number N of a fault "FAULT:N" that is requested; 0 for none.
unsigned int faultNumber(const std::string& element, const std::string& fault);

}  // namespace simulated_board
