#pragma once

#include <chrono>
#include <cstdint>
#include <deque>
#include <mutex>

#include <media_backend/AudioContinuityGuard.h>

#include "base/Metrics.h"

namespace station {

// Continuous audio track of a recording or for servers, from time 0: received packets, and the
// guard's fallback frames in the gaps.
//
// Packets older than what take() has returned are dropped as late. A jump in PTS means loss, and
// the gap is filled at once; without packets, take() fills after the watchdog. Times are
// nanoseconds from the track's start. Threads: any.
class AudioTrack {
 public:
  using TimePoint = std::chrono::steady_clock::time_point;

  struct Frame : media_backend::EncodedAudioFrame {
    bool isFallback;
  };
  using Frames = std::deque<Frame>;

  struct Settings {
    media_backend::AudioContinuityGuard::FallbackMode fallback =
        media_backend::AudioContinuityGuard::FallbackMode::Silence;
    std::chrono::milliseconds watchdog{40};
    int fallbackBitRate = 64000;  // bits per second, 6000 to 256000
  };

  struct Statistics {
    std::uint64_t received;
    std::uint64_t late;
    std::uint64_t fallback;
  };

  // `part`: of Metrics, under which it publishes its statistics.
  AudioTrack(const Settings& settings, const char* part);

  void receive(media_backend::EncodedAudioFrame packet, TimePoint now);

  // The next frames to push, with fallback frames up to `until` if the watchdog has expired.
  // `until` is earlier than now by more than packets may be late.
  Frames take(std::chrono::nanoseconds until, TimePoint now);

  // The remaining frames, filled up to `end` without the watchdog.
  Frames finish(std::chrono::nanoseconds end);

  Statistics statistics() const;

 private:
  void fillLocked(std::uint64_t untilNs, TimePoint now);
  void addFallbackLocked(std::deque<media_backend::EncodedAudioFrame> fallback);
  Frames handOverLocked();

  mutable std::mutex mutex_;
  media_backend::AudioContinuityGuard guard_;
  Frames ready_;         // precede the guard's queue
  std::uint64_t endNs_;  // of the track so far, on the guard's timeline
  std::uint64_t frameNs_ = 20'000'000;
  Statistics statistics_{};
  const Metrics::Publication metrics_;
};

}  // namespace station
