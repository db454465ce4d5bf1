#pragma once

#include <string>

#include <nlohmann/json_fwd.hpp>

#include "metadata/Klv.h"

namespace station {

// The core identifier of a stream (MISB ST 1204): which sensor on which platform.
class CoreIdentifier {
 public:
  // The sensor's part comes from its part and serial number, the platform's from its name; the same
  // texts give the same identifier everywhere. Empty texts are not known; if both are, there is no
  // identifier.
  static Bytes make(const std::string& sensor, const std::string& platform);

  // As JSON. Throws std::out_of_range.
  static nlohmann::ordered_json decode(const Bytes& bytes);
};

}  // namespace station
