#pragma once

#include <cstddef>
#include <cstdint>
#include <string>
#include <utility>

#include <lumora/LumoraPicture.h>
#include <nlohmann/json_fwd.hpp>

#include "metadata/Klv.h"

namespace station {

// Encodes a picture's metadata as a UAS datalink local set (MISB ST 0601), including the known
// items of the minimum set (MISB ST 0902). MisbItem has the items.
//
// The set also has computed items: the corners and the width of the picture on the ground. They
// assume level ground at the elevation of the frame centre and a sensor that does not roll on its
// platform; no key has that roll (item 20), so it is never written. Pitch and roll use the
// full-range items if the short ones cannot hold the value. Unknown values are left out, and so are
// values out of range whose item has no code for that.
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

  // The first packet of `bytes` as a JSON object: names as in MisbItem, null for "out of range",
  // and "error" for what is wrong with the packet. `size` receives the packet's size, at least 1.
  static nlohmann::ordered_json decode(const Bytes& bytes, std::size_t& size);

 private:
  Labels labels_;
};

}  // namespace station
