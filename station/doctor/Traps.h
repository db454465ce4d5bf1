#pragma once

#include <string>
#include <vector>

namespace station {

// What boards are known to stumble over.

// What to do about an error of an encoder's element, by its text and the device node that it names;
// empty if it is none of the known ones.
std::string remedyFor(const std::string& error);

// An encoder of boards that the library does not support.
struct OtherEncoder {
  const char* name;
  const char* boards;  // that have it
};

// Those that are here.
std::vector<OtherEncoder> findOtherEncoders();

}  // namespace station
