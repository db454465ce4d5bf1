#include "record/SegmentStore.h"

namespace station {
namespace {

constexpr std::uint64_t kReserveSeconds = 4;

}  // namespace

SegmentStore::SegmentStore(const std::filesystem::path& folder, const SegmentOptions& options,
                           std::uint32_t bitRate, SegmentHook& hook)
    : command_(options.command), hook_(hook) {
  if (options.keep.isWanted()) {
    retention_.emplace(folder, options.keep, kReserveSeconds * bitRate / 8);
  }
  metrics_.emplace("segments", [this] { return figures(); });
}

void SegmentStore::begin(const std::filesystem::path& segment,
                         std::chrono::system_clock::time_point start) {
  if (retention_) {
    retention_->begin(segment, start);
  }
}

void SegmentStore::close(const std::filesystem::path& segment) {
  if (!command_.empty()) {
    hook_.push(command_, segment);
  }
  if (retention_) {
    retention_->close(segment);
  }
}

Metrics::Figures SegmentStore::figures() const {
  constexpr auto kCounter = Metrics::Kind::Counter;
  Metrics::Figures figures;
  if (retention_) {
    figures.push_back(
        {"deleted", kCounter, "Segments deleted to keep the limits.", retention_->deleted()});
  }
  if (!command_.empty()) {
    figures.push_back(
        {"failed_commands", kCounter, "Failures of the command for a segment.", hook_.failures()});
  }
  return figures;
}

}  // namespace station
