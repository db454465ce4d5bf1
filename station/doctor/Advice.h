#pragma once

#include <string>
#include <vector>

#include "doctor/Checks.h"

namespace station {

// What to do about a diagnosis, a line each, in this order.
std::vector<std::string> adviseOn(const Diagnosis& board);

}  // namespace station
