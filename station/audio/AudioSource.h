#pragma once

#include <gst/gst.h>
#include <media_backend/AudioContinuityGuard.h>

#include "audio/LiveAudio.h"
#include "base/Handles.h"

namespace station {

// An appsrc for live Opus packets, as text of a description; `element` follows it.
std::string describeAudioSource(const std::string& element);

// Pushes live audio into a pipeline's appsrc while this object lives.
class AudioSource {
 public:
  // `bin` holds the source of describeAudioSource(); throws StationError (Pipeline) otherwise.
  AudioSource(LiveAudio& audio, GstElement* bin);

 private:
  void push(const media_backend::EncodedAudioFrame& packet,
            std::chrono::steady_clock::time_point begin);

  const GstPtr<GstElement> source_;
  const LiveAudio::Subscription subscription_;  // after what it uses
};

}  // namespace station
