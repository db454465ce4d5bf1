#pragma once

#include <optional>
#include <string>

#include "metadata/Telemetry.h"

namespace station {

// Telemetry from a file of TelemetryLine, all with times. It is replayed: the time of its first
// line is that of the first picture.
class TelemetryFile : public MetadataSource {
 public:
  // Reads the whole file. Throws StationError (Source).
  TelemetryFile(const std::string& path, std::chrono::nanoseconds timeout);
  void annotate(lumora::LumoraPicture& picture, Time time) override;

 private:
  Telemetry telemetry_;
  Time begin_;                                     // of the file
  std::optional<std::chrono::nanoseconds> delay_;  // from the file's times to the pictures'
};

}  // namespace station
