#pragma once

#include <optional>
#include <string>

#include "metadata/Telemetry.h"

namespace station {

// One line of telemetry: a JSON object with the names of metadata keys, and "time", in seconds
// since 1970 or as in "2026-01-31T12:00:00.25Z". A null means that the value is not known any more.
struct TelemetryLine {
  std::optional<Telemetry::Time> time;  // nothing if the line has none
  Telemetry::Sample sample;             // without other names

  // Throws std::invalid_argument with the reason.
  static TelemetryLine parse(const std::string& text);
};

}  // namespace station
