#pragma once

#include <chrono>
#include <cstdint>
#include <filesystem>
#include <optional>

#include "base/Metrics.h"
#include "record/Retention.h"
#include "record/SegmentHook.h"
#include "record/SegmentOptions.h"

namespace station {

// Looks after the segments of one folder, over any number of recordings.
//
// Threads: any. No call waits for a disk or a program; the destructor waits for programs.
class SegmentStore {
 public:
  // `bitRate` of the recordings, in bits per second.
  SegmentStore(const std::filesystem::path& folder, const SegmentOptions& options,
               std::uint32_t bitRate);

  // A segment that is about to be written, named after `start`, and its end.
  void begin(const std::filesystem::path& segment, std::chrono::system_clock::time_point start);
  void close(const std::filesystem::path& segment);

 private:
  Metrics::Figures figures() const;

  std::optional<Retention> retention_;
  std::optional<SegmentHook> hook_;
  std::optional<Metrics::Publication> metrics_;
};

}  // namespace station
