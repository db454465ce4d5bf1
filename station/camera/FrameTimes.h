#pragma once

#include <deque>
#include <functional>
#include <optional>
#include <queue>
#include <string>
#include <vector>

#include "base/FrameRate.h"
#include "camera/MediaProbe.h"

namespace station {

// When each frame of a media file is shown, from the packets of its video track: the library's
// source delivers frames without times.
//
// Threads: one at a time.
class FrameTimes {
 public:
  explicit FrameTimes(const std::string& path);

  // Whether the first frames are as far apart as the rate says.
  bool agreeWith(const FrameRate& rate);

  // Time of the next frame in the order of display, from the first one; empty after the last.
  std::optional<GstClockTime> next();
  // Begins again at the first frame.
  void restart();

 private:
  std::optional<GstClockTime> read();

  MediaProbe packets_;
  // Times of packets that may be shown later than others that are still to come.
  std::priority_queue<GstClockTime, std::vector<GstClockTime>, std::greater<>> reordered_;
  std::deque<GstClockTime> ahead_;  // that agreeWith() has read
  std::optional<GstClockTime> first_;
  bool ended_ = false;  // of a GIF, the demuxer reports no end: waiting for it takes seconds
};

}  // namespace station
