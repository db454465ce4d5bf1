#pragma once

#include <atomic>
#include <chrono>
#include <optional>

#include "metadata/Telemetry.h"

namespace station {

// Telemetry that arrives while the program runs, by the system's clock. A picture gets the values
// of the present, so that setting the clock does not lose the telemetry that arrives afterwards.
class LiveTelemetry : public MetadataSource {
 public:
  void annotate(lumora::LumoraPicture& picture, Time time) override;

 protected:
  explicit LiveTelemetry(std::chrono::nanoseconds timeout);

  // Without a time, values have that of the call. With one that differs from the clock by more than
  // the timeout they are not used; a line on standard error says so once. Any thread.
  void add(std::optional<Time> time, const Telemetry::Sample& sample);

 private:
  const std::chrono::nanoseconds timeout_;
  Telemetry telemetry_;
  std::atomic<bool> hasComplained_{false};
};

}  // namespace station
