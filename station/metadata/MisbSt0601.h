#pragma once

#include <cstddef>
#include <cstdint>
#include <string>
#include <utility>

#include <lumora/LumoraPicture.h>
#include <nlohmann/json_fwd.hpp>

#include "metadata/Klv.h"

namespace station {

// The metadata of a picture as a UAS datalink local set (MISB ST 0601), with what its minimum set
// (MISB ST 0902) asks for as far as it is known. MisbItem has the items.
//
// What follows from the header is in the set, too: the corners and the width of the picture on the
// ground, if it is level at the elevation of the frame centre, and if the sensor does not roll on
// its platform. No key has that roll (item 20), so it is never written. Pitch and roll are the
// full-range items where the others cannot say them. What is not known is left out, and so is a
// value out of range, unless its item has a mark for that.
//
// Threads: any.
class MisbSt0601 {
 public:
  static constexpr std::size_t kLongestText = 127;  // bytes

  // What no picture says; empty for unknown.
  struct Labels {
    std::string mission;
    std::string platform;
    std::string sensor;  // instead of the camera's name in the header
    Bytes security;      // a set of MISB ST 0102
  };

  explicit MisbSt0601(Labels labels) : labels_(std::move(labels)) {}

  // One KLV packet.
  Bytes encode(const lumora::LumoraPicture& picture) const;

  // The first packet of `bytes` as a JSON object with names as in MisbItem and null for a value
  // that its item marks, and the packet's size, at least one. `error` says what is wrong with it.
  static nlohmann::ordered_json decode(const Bytes& bytes, std::size_t& size);

 private:
  Labels labels_;
};

}  // namespace station
