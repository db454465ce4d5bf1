#pragma once

#include <memory>
#include <string>

#include "base/Command.h"
#include "metadata/MetadataSource.h"
#include "metadata/MisbSt0601.h"

namespace station {

// Options of commands that write metadata.
struct MetadataOptions {
  std::string telemetry;      // FILE, "-", "udp:PORT", "gpsd:HOST" or "demo"; empty for none
  double timeoutSeconds = 2;  // until a value is unknown
  MisbSt0601::Labels labels;

  void addTo(CLI::App& command);

  // The source that `telemetry` names; null for none. Throws StationError.
  std::unique_ptr<MetadataSource> open() const;
};

}  // namespace station
