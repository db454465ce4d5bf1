#pragma once

#include <chrono>
#include <cstdint>
#include <memory>
#include <optional>
#include <vector>

#include <lumora/LumoraPicture.h>

#include "metadata/MetadataOptions.h"

namespace station {

// Writes metadata into the headers of a camera's pictures.
//
// Threads: one thread at a time.
class Annotator {
 public:
  // Opens the telemetry. Throws StationError.
  explicit Annotator(const MetadataOptions& options);

  // The KLV packet of the picture's metadata. `time`: that of capture.
  std::vector<std::uint8_t> annotate(lumora::LumoraPicture& picture, MetadataSource::Time time);

 private:
  const std::unique_ptr<MetadataSource> source_;  // null for none
  const MisbSt0601 encoder_;
  std::optional<MetadataSource::Time> first_;
};

}  // namespace station
