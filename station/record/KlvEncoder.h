#pragma once

#include <cstdint>
#include <vector>

#include <lumora/LumoraPicture.h>

namespace station {

// Encodes the picture's metadata as a MISB ST 0601 UAS datalink local set, one KLV packet:
// timestamp, platform angles, sensor position and angles, fields of view, slant range and frame
// centre. Missing metadata is left out, and so is a value out of range, unless its item has the
// standard's "out of range" code.
std::vector<std::uint8_t> encodeMisbSt0601(const lumora::LumoraPicture& picture);

}  // namespace station
