#pragma once

#include <string>
#include <vector>

#include "doctor/Checks.h"
#include "doctor/Verdict.h"

namespace station {

// Prints the whole report on standard output. Keys are only added from release to release; what is
// unknown is null. `next`: what to do.
void printJson(const Diagnosis& board, const std::vector<std::string>& next,
               const Verdict& verdict);

}  // namespace station
