#pragma once

#include <chrono>
#include <functional>
#include <optional>

#include <gst/gst.h>

namespace station {

// Timestamps in the video itself (MISB ST 0604): an SEI message before the slices of each access
// unit of H.264 and H.265.
class MisbSt0604 {
 public:
  // The wall clock's time of the frame with this running time; nothing if it is not known.
  using TimeOf = std::function<std::optional<std::chrono::system_clock::time_point>(GstClockTime)>;

  // Adds a message to every access unit of known time that passes the pad, as long as it is a byte
  // stream.
  // `timeOf` is called on the pad's streaming thread until the pad is gone.
  static void insertAt(GstPad* pad, TimeOf timeOf);
};

}  // namespace station
