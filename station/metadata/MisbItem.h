#pragma once

#include <cstddef>
#include <cstdint>
#include <optional>
#include <string>
#include <vector>

#include <lumora/LumoraPicture.h>

#include "metadata/Klv.h"

namespace station {

// An item of the UAS datalink local set (MISB ST 0601).
struct MisbItem {
  using Value = lumora::LumoraPicture::MetadataValue;

  enum class Mapping {
    Unsigned,  // [low, high] onto 0 to 2^n - 1
    Angle,     // the same, after turning the angle into [0, 360)
    Signed,    // [-high, high] onto -(2^(n-1) - 1) to 2^(n-1) - 1; -2^(n-1) means out of range
    Imapb,     // [low, high] as MISB ST 1201 says; read in any size
    Integer,   // as it is, from low to high
    Laser,     // bits: the laser's for true, and that the slant range is measured then
    Text,
    Octets,  // nested sets
  };

  std::uint8_t tag;
  std::string name;  // the metadata key, if there is one
  Mapping mapping;
  std::size_t bytes = 0;  // of a number
  double low = 0;
  // Below zero if the item counts the other way than its key; 0 for an integer of any size.
  double high = 0;

  // Nothing for a value that the item cannot say.
  std::optional<Bytes> encode(const Value& value) const;
  // Nothing for "out of range" and not a number. Throws std::out_of_range for a wrong size.
  std::optional<Value> decode(const Bytes& content) const;

 private:
  std::optional<Bytes> encodeNumber(double value) const;
};

// The items that the station writes and reads, by tag.
const std::vector<MisbItem>& misbItems();

}  // namespace station
