#include <simulated_board/Faults.h>

#include <cstdlib>
#include <sstream>

#include "Debug.h"

namespace simulated_board {
namespace {

// Whether a fault that begins with `begin` is requested whose rest `take` takes.
template <typename Take>
bool find(const std::string& begin, const Take& take) {
  const char* const faults = std::getenv("SIMULATED_BOARD_FAULTS");
  std::istringstream rows(faults != nullptr ? faults : "");
  for (std::string row; std::getline(rows, row, ',');) {
    if (row.rfind(begin, 0) == 0 && take(row.substr(begin.size()))) {
      GST_INFO("SIMULATED_BOARD_FAULTS: %s", row.c_str());
      return true;
    }
  }
  return false;
}

}  // namespace

bool hasFault(const std::string& element, const std::string& fault) {
  return find(element + "=" + fault, [](const std::string& rest) { return rest.empty(); });
}

std::string faultText(const std::string& element, const std::string& fault) {
  std::string text;
  find(element + "=" + fault + ":", [&text](const std::string& rest) {
    text = rest;
    return true;
  });
  return text;
}

unsigned int faultNumber(const std::string& element, const std::string& fault) {
  return static_cast<unsigned int>(std::strtoul(faultText(element, fault).c_str(), nullptr, 10));
}

}  // namespace simulated_board
