#pragma once

#include <string>

#include <nlohmann/json_fwd.hpp>

#include "metadata/Klv.h"

namespace station {

// The security marking of a picture, a local set of MISB ST 0102 inside that of MISB ST 0601.
class MisbSt0102 {
 public:
  // Of LEVEL:COUNTRY:COUNTRY, where a country is two or three letters of ISO 3166. Throws
  // StationError (Usage).
  static Bytes parse(const std::string& text);

  // The set as JSON. Throws std::out_of_range.
  static nlohmann::ordered_json decode(const Bytes& set);
};

}  // namespace station
