#include "Faults.h"

#include <cstdlib>
#include <sstream>

namespace simulated_board {

bool hasFault(const std::string& element, const std::string& fault) {
  const char* const faults = std::getenv("SIMULATED_BOARD_FAULTS");
  std::istringstream rows(faults != nullptr ? faults : "");
  for (std::string row; std::getline(rows, row, ',');) {
    if (row == element + "=" + fault) {
      return true;
    }
  }
  return false;
}

}  // namespace simulated_board
