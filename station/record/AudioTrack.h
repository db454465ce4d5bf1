#pragma once

#include <chrono>
#include <cstdint>
#include <deque>
#include <mutex>

#include <media_backend/AudioContinuityGuard.h>

namespace station {

// The recording's sound, from time 0 to the end without a gap: packets as they are received, and
// the guard's fallback frames where none came.
//
// A packet that begins before what was already taken is late and left out. A packet that leaves a
// hole behind the one before proves that the frames between are lost, so the hole is filled at
// once; while nothing arrives, take() fills as soon as the guard's watchdog has run out.
// Times are nanoseconds from the track's start. Threads: any, at once.
class AudioTrack {
 public:
  using TimePoint = std::chrono::steady_clock::time_point;
  using Frames = std::deque<media_backend::EncodedAudioFrame>;

  struct Settings {
    media_backend::AudioContinuityGuard::FallbackMode fallback =
        media_backend::AudioContinuityGuard::FallbackMode::Silence;
    std::chrono::milliseconds watchdog{40};
  };

  struct Statistics {
    std::uint64_t received;
    std::uint64_t late;
    std::uint64_t fallback;
  };

  explicit AudioTrack(const Settings& settings);

  void receive(media_backend::EncodedAudioFrame packet, TimePoint now);

  // What there is to push next, continued by fallback frames up to `until` where the watchdog
  // allows. `until` has to stay behind the clock by more than packets may be late.
  Frames take(std::chrono::nanoseconds until, TimePoint now);

  // The rest of the track up to `end`, filled without waiting for the watchdog.
  Frames finish(std::chrono::nanoseconds end);

  Statistics statistics() const;

 private:
  void fillLocked(std::uint64_t untilNs, TimePoint now);
  Frames handOverLocked();

  mutable std::mutex mutex_;
  media_backend::AudioContinuityGuard guard_;
  Frames ready_;         // before what the guard has queued
  std::uint64_t endNs_;  // of the track so far, on the guard's timeline
  std::uint64_t frameNs_ = 20'000'000;
  Statistics statistics_{};
};

}  // namespace station
