#pragma once

#include <string>
#include <vector>

#include "doctor/Checks.h"

namespace station {

// What to do about trials whose pictures came back wrong, a line for each kind of fault and place:
// the elements that are at fault are those that no use has that works.
std::vector<std::string> adviseOnWrongPictures(const Diagnosis& board);

}  // namespace station
