#pragma once

#include <string>
#include <vector>

#include "base/Command.h"
#include "record/Retention.h"

namespace station {

// What happens to complete segments: --keep-hours, --keep-size, --keep-free and --on-segment.
struct SegmentOptions {
  Retention::Settings keep;
  std::vector<std::string> command;  // words of what is run for each; empty for nothing

  void addTo(CLI::App& app);
};

}  // namespace station
