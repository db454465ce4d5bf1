#pragma once

#include <cstdint>
#include <vector>

#include <lumora/LumoraPicture.h>

namespace station {

// A MISB ST 0601 UAS datalink local set, as one KLV packet, of what the picture's metadata says:
// time stamp, platform angles, sensor position and angles, fields of view, slant range and frame
// centre. Items without metadata are left out. A value outside an item's range is written as the
// standard's "out of range" code where the item has one, and left out where it has none.
std::vector<std::uint8_t> encodeMisbSt0601(const lumora::LumoraPicture& picture);

}  // namespace station
