#pragma once

#include <chrono>
#include <cstdint>
#include <deque>
#include <memory>
#include <mutex>
#include <optional>
#include <vector>

#include <media_backend/Export.h>

struct OpusEncoder;

namespace media_backend {

// One Opus packet on the host's media timeline. In a received frame, 0 in `durationNs`,
// `sampleRate` or `channels` means that the sender did not specify it.
struct EncodedAudioFrame {
  std::vector<std::uint8_t> payload;      // the packet
  std::uint64_t ptsNs = 0;                // nanoseconds
  std::uint64_t durationNs = 20'000'000;  // nanoseconds
  std::uint32_t sampleRate = 48000;       // Hz
  std::uint8_t channels = 1;              // 1 or 2
};

// Keeps one Opus track free of gaps. The host notes every received frame, drains the frames
// downstream, and requests fallback frames when it needs audio up to some point. There are none
// while frames arrive; after the watchdog timeout without a frame, silence or noise continues the
// track without gap or overlap. Fallback frames have the format of the last received frame; a
// format that Opus does not encode yields none.
//
// The guard has no thread and no timer: the caller passes "now", as steady_clock::now() gives it,
// which prime() reads itself.
// Errors: an operation that cannot lock throws std::system_error before anything changes;
// allocation failures propagate and leave timeline and queue as they were.
// Threads: any thread may call any operation; one mutex, held throughout, serialises them. The
// guard must not be destroyed during a call.
class MEDIA_BACKEND_API AudioContinuityGuard {
 public:
  // The clock of every "now".
  using TimePoint = std::chrono::steady_clock::time_point;

  // Content of fallback frames: no frames at all, digital silence, or pseudo-random noise.
  enum class FallbackMode : std::int32_t { Disabled = 0, Silence = 1, Noise = 2 };

  AudioContinuityGuard();
  ~AudioContinuityGuard();
  AudioContinuityGuard(const AudioContinuityGuard&) = delete;
  AudioContinuityGuard& operator=(const AudioContinuityGuard&) = delete;

  // Starts the track in this format (0: 48000 Hz, 1 channel, 20 ms): fallback frames are available
  // at once, before the first received frame. Timeline and queue are unchanged.
  void prime(std::uint32_t sampleRate, std::uint8_t channels, std::uint64_t frameDurationNs);

  // Takes effect with the next fallback frame. Silence by default.
  void setFallbackMode(FallbackMode mode);
  // Clamped to 6000 to 256000. An existing encoder keeps its rate.
  void setFallbackBitrate(int bitsPerSecond);
  // At least 1 ms. A timeout too long for 64-bit nanoseconds never expires.
  void setWatchdogTimeout(std::chrono::milliseconds timeout);

  // Queues a copy of the frame and moves the timeline to the frame's end. The queue is unbounded.
  void noteReceived(const EncodedAudioFrame& frame, TimePoint now);

  // Removes and returns the queued frames in order of arrival, in constant time.
  std::deque<EncodedAudioFrame> drainReceived();

  // Returns one fallback frame at the end of the track; if the timeline is unknown, the frame
  // starts at `now`, counted from the clock's epoch. Empty before prime() or the first received
  // frame, before the watchdog expires, if the mode is Disabled, or if the frame cannot be encoded.
  std::optional<EncodedAudioFrame> maybeMakeFallback(TimePoint now);

  // Returns fallback frames from the end of the track to the one that spans `untilPtsNs`, at most
  // `maxFrames`. A timeline that is unknown or more than one frame ahead restarts at `untilPtsNs`.
  // Empty under the conditions above, or if either argument is 0. Stops at a frame that cannot be
  // encoded.
  std::deque<EncodedAudioFrame> makeFallbackUntil(std::uint64_t untilPtsNs, std::uint64_t maxFrames,
                                                  TimePoint now);

  // Ends the track: clears queue, timeline, format and encoder. Keeps mode, bit rate, timeout and
  // the state of the noise generator.
  void reset();

 private:
  struct EncoderDeleter {
    void operator()(OpusEncoder* encoder) const;
  };

  // Format that the encoder was created for; the stream's format may have changed since.
  struct EncoderFormat {
    std::uint32_t sampleRate = 48000;
    std::uint8_t channels = 1;
    std::uint32_t frameSamples = 960;  // per channel
  };

  // Called with the mutex held.
  bool mayFallBackLocked(TimePoint now) const;
  bool watchdogExpiredLocked(TimePoint now) const;
  std::uint64_t alignedTimelineLocked(std::uint64_t untilPtsNs) const;
  bool ensureEncoderLocked(std::uint32_t sampleRate, std::uint8_t channels,
                           std::uint64_t frameDurationNs);
  bool generateFallbackLocked(EncodedAudioFrame& frame);
  std::int16_t nextNoiseSampleLocked();

  std::mutex mutex_;
  std::deque<EncodedAudioFrame> received_;
  TimePoint lastReceived_{};
  std::chrono::milliseconds watchdogTimeout_{40};
  bool expiredUntilReceived_ = false;  // primed under a timeout that never expires
  bool primed_ = false;
  FallbackMode mode_ = FallbackMode::Silence;
  std::int32_t bitrate_ = 64000;

  // the stream
  std::uint64_t nextPtsNs_ = 0;  // end of the track; 0: unknown
  std::uint64_t frameDurationNs_ = 20'000'000;
  std::uint32_t sampleRate_ = 48000;
  std::uint8_t channels_ = 1;

  // the fallback
  std::unique_ptr<OpusEncoder, EncoderDeleter> encoder_;
  EncoderFormat encoderFormat_;
  std::vector<std::int16_t> pcm_;     // one frame, channels interleaved
  std::vector<std::uint8_t> packet_;  // the encoder's output
  std::uint32_t noiseState_ = 0x12345678;
};

}  // namespace media_backend
