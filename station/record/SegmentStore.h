#pragma once

#include <chrono>
#include <cstdint>
#include <filesystem>
#include <optional>
#include <string>
#include <vector>

#include "base/Metrics.h"
#include "record/Retention.h"
#include "record/SegmentHook.h"
#include "record/SegmentOptions.h"

namespace station {

// Looks after the segments of one folder, over any number of recordings.
//
// Threads: any. No call waits for a disk or a program.
class SegmentStore {
 public:
  // `bitRate` of the recordings, in bits per second. `hook`, which outlives this object, runs the
  // program of the options.
  SegmentStore(const std::filesystem::path& folder, const SegmentOptions& options,
               std::uint32_t bitRate, SegmentHook& hook);

  // A segment that is about to be written, named after `start`, and its end.
  void begin(const std::filesystem::path& segment, std::chrono::system_clock::time_point start);
  void close(const std::filesystem::path& segment);

 private:
  Metrics::Figures figures() const;

  std::optional<Retention> retention_;
  const std::vector<std::string> command_;
  SegmentHook& hook_;
  std::optional<Metrics::Publication> metrics_;
};

}  // namespace station
