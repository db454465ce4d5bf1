#pragma once

#include <chrono>
#include <map>
#include <mutex>
#include <optional>

#include <gst/gst.h>

namespace station {

// Capture times of the frames that are in an encoder.
//
// Threads: any.
class CaptureTimes {
 public:
  using Time = std::chrono::system_clock::time_point;

  // Drops the oldest of too many frames.
  void add(GstClockTime runningTime, Time captured);

  // Of the frame with this running time, or the nearest within a millisecond, because encoders may
  // round it; nothing if there is none.
  std::optional<Time> find(GstClockTime runningTime) const;

 private:
  mutable std::mutex mutex_;
  std::map<GstClockTime, Time> times_;
};

}  // namespace station
