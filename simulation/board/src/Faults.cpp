#include "Faults.h"

#include <cstdlib>
#include <sstream>

#include "Debug.h"

namespace simulated_board {

bool hasFault(const std::string& element, const std::string& fault) {
  const char* const faults = std::getenv("SIMULATED_BOARD_FAULTS");
  const std::string wanted = element + "=" + fault;
  std::istringstream rows(faults != nullptr ? faults : "");
  for (std::string row; std::getline(rows, row, ',');) {
    if (row == wanted) {
      GST_INFO("SIMULATED_BOARD_FAULTS: %s", wanted.c_str());
      return true;
    }
  }
  return false;
}

}  // namespace simulated_board
