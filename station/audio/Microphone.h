#pragma once

#include <chrono>
#include <condition_variable>
#include <cstdint>
#include <mutex>
#include <string>

#include <gst/app/gstappsink.h>
#include <gst/gst.h>

#include "audio/AudioTrack.h"
#include "base/Handles.h"

namespace station {

// Where a microphone's sound comes from.
struct MicrophoneName {
  std::string element;  // of GStreamer; empty for none
  std::string device;   // empty for the default

  // "alsa:DEVICE", "pulse:NAME", or "test" for a tone. Throws StationError (Usage).
  static MicrophoneName parse(const std::string& text);
};

// Encodes a microphone's sound into Opus packets of 20 ms, and delivers them to a track as they
// come. If the microphone fails, a line on standard error says so, and no more packets come.
// Packets with times that are still to come are dropped.
//
// Threads: one; the track is called on the microphone's own.
class Microphone {
 public:
  // Opens it; throws StationError (Source). `track` outlives the microphone.
  Microphone(const MicrophoneName& name, AudioTrack& track);

  // Begins to deliver; `time` is the track's time 0.
  void start(std::chrono::steady_clock::time_point time);
  // Delivers the packets before `end`, on the track's timeline, which may still be under way, and
  // no more.
  void stopAt(std::chrono::nanoseconds end);

 private:
  void waitUntilOpen(const std::string& device);
  bool isAhead(GstClockTime time);
  void deliver(GstBuffer* packet);
  static GstFlowReturn onSample(GstElement* sink, gpointer self);
  static GstBusSyncReply onMessage(GstBus* bus, GstMessage* message, gpointer self);

  AudioTrack& track_;
  std::mutex mutex_;
  std::condition_variable delivered_;
  bool delivers_ = false;
  bool wasAhead_ = false;
  std::int64_t start_ = 0;     // of the track, in the pipeline's running time
  std::int64_t expected_ = 0;  // time of the next packet if none is lost
  PipelinePtr pipeline_;       // last: its threads use everything above
};

}  // namespace station
