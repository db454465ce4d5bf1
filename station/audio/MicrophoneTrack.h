#pragma once

#include <chrono>
#include <condition_variable>
#include <cstdint>
#include <memory>
#include <mutex>

#include "audio/AudioTrack.h"
#include "audio/Microphone.h"

namespace station {

// Delivers a microphone's packets to a track.
//
// Threads: one; the track is called on the microphone's own.
class MicrophoneTrack {
 public:
  // `track` outlives this object.
  MicrophoneTrack(std::shared_ptr<Microphone> microphone, AudioTrack& track);

  // Begins to deliver; `time` is the track's time 0.
  void start(std::chrono::steady_clock::time_point time);
  // Delivers the packets before `end`, on the track's timeline, which may still be under way, and
  // no more.
  void stopAt(std::chrono::nanoseconds end);

 private:
  void receive(media_backend::EncodedAudioFrame packet,
               std::chrono::steady_clock::time_point begin);

  const std::shared_ptr<Microphone> microphone_;
  AudioTrack& track_;
  std::mutex mutex_;
  std::condition_variable delivered_;
  bool delivers_ = false;
  std::chrono::steady_clock::time_point start_;  // of the track
  std::int64_t expected_ = 0;                    // time of the next packet if none is lost
  const Microphone::Subscription subscription_;  // last: uses everything above
};

}  // namespace station
