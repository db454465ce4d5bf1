#pragma once

#include <chrono>
#include <functional>
#include <optional>

#include <gst/gst.h>

namespace station {

// Writes timestamps into H.264 and H.265 video (MISB ST 0604): an SEI message before the first
// slice of each access unit.
class MisbSt0604 {
 public:
  // Wall clock time of the frame with this running time; nothing if unknown.
  using TimeOf = std::function<std::optional<std::chrono::system_clock::time_point>(GstClockTime)>;

  // Adds a pad probe that inserts the message into every access unit whose time is known, if the
  // pad's caps are a byte stream. `timeOf` is called on the pad's streaming thread until the pad is
  // freed.
  static void insertAt(GstPad* pad, TimeOf timeOf);
};

}  // namespace station
