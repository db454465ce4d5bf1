#pragma once

#include <filesystem>

#include "base/Command.h"
#include "base/Pipelines.h"
#include "record/SegmentOptions.h"

namespace station {

struct RecordOptions {
  std::filesystem::path folder;
  DescriptionSettings recorder;
  SegmentOptions segments;
  double durationSeconds = 0;  // 0: until stopped

  // All but those of the encoder and the folder.
  void addTo(CLI::App& command);
};

}  // namespace station
