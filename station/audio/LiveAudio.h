#pragma once

#include <chrono>
#include <thread>
#include <vector>

#include "audio/AudioOptions.h"
#include "audio/SharedMicrophone.h"
#include "base/LiveSource.h"

namespace station {

// Live audio for servers: a gapless track of Opus packets, each with the time at which it begins.
// Runs on its own thread while it has subscriptions, and begins anew with the first of them.
// Consumers must not block.
//
// Threads: any.
class LiveAudio : public LiveSource<const media_backend::EncodedAudioFrame&,
                                    std::chrono::steady_clock::time_point> {
 public:
  // Reads the file, or tries the microphone, which outlives this object: throws StationError
  // (Source).
  LiveAudio(const AudioOptions& options, SharedMicrophone& microphone);
  ~LiveAudio();  // after every subscription
  LiveAudio(const LiveAudio&) = delete;
  LiveAudio& operator=(const LiveAudio&) = delete;

  // Whether packets come all the time.
  bool isGapless() const {
    return options_.track.fallback != media_backend::AudioContinuityGuard::FallbackMode::Disabled;
  }

 private:
  void run();
  void play();

  const AudioOptions options_;
  SharedMicrophone& microphone_;
  std::vector<OpusPacket> packets_;
  std::thread thread_;
};

}  // namespace station
