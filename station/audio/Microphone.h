#pragma once

#include <atomic>
#include <chrono>
#include <string>

#include <gst/app/gstappsink.h>
#include <gst/gst.h>
#include <media_backend/AudioContinuityGuard.h>

#include "base/Handles.h"
#include "base/LiveSource.h"

namespace station {

// Where a microphone's audio comes from.
struct MicrophoneName {
  std::string element;  // of GStreamer; empty for none
  std::string device;   // empty for the default

  // "alsa:DEVICE", "pulse:NAME", or "test" for a tone. Throws StationError (Usage).
  static MicrophoneName parse(const std::string& text);
};

// Encodes a microphone's audio into Opus packets of 20 ms, and delivers each with the time at which
// it begins. If the microphone fails, a line on standard error says so, and no more packets come.
// Packets with times that are still to come are dropped.
//
// Threads: any; packets come on the microphone's own.
class Microphone : public LiveSource<const media_backend::EncodedAudioFrame&,
                                     std::chrono::steady_clock::time_point> {
 public:
  // Opens it; throws StationError (Source).
  explicit Microphone(const MicrophoneName& name);

  bool hasFailed() const { return hasFailed_; }

 private:
  void waitUntilOpen(const std::string& device);
  bool isAhead(GstClockTime time);
  void encoded(GstBuffer* packet);
  static GstFlowReturn onSample(GstElement* sink, gpointer self);
  static GstBusSyncReply onMessage(GstBus* bus, GstMessage* message, gpointer self);

  std::atomic<bool> hasFailed_{false};
  bool wasAhead_ = false;
  PipelinePtr pipeline_;  // last: its threads use everything above
};

}  // namespace station
