#include <media_backend/AudioContinuityGuard.h>

#include <algorithm>
#include <limits>
#include <utility>

#include <opus.h>

namespace media_backend {
namespace {

using std::chrono::milliseconds;
using std::chrono::nanoseconds;
using std::chrono::steady_clock;

constexpr std::uint32_t kDefaultSampleRate = 48000;
constexpr std::uint8_t kDefaultChannels = 1;
constexpr std::uint64_t kDefaultFrameDurationNs = 20'000'000;
constexpr std::size_t kMaxPacketBytes = 4000;
// Samples per channel of the longest Opus packet, 120 ms at 48 kHz. opus_encode() rejects longer
// frames, so no buffer is allocated for them: a sender's wrong duration would take gigabytes.
constexpr std::uint32_t kMaxFrameSamples = 5760;

// The longest timeout whose nanoseconds fit the clock's representation.
constexpr milliseconds kLongestTimeout =
    std::chrono::duration_cast<milliseconds>(nanoseconds::max());

template <typename Value>
Value orDefault(Value value, Value fallback) {
  return value != 0 ? value : fallback;
}

std::uint32_t samplesPerFrame(std::uint64_t durationNs, std::uint32_t sampleRate) {
  const auto samples = static_cast<std::int32_t>(durationNs * sampleRate / 1'000'000'000U);
  return static_cast<std::uint32_t>(std::max(samples, 1));
}

// Step of the noise generator: state * multiplier + increment, modulo 2^32. Two steps combine into
// one of the same form, so n steps take log2(n) rounds.
struct NoiseStep {
  std::uint32_t multiplier = 1664525;
  std::uint32_t increment = 1013904223;

  std::uint32_t operator()(std::uint32_t state) const { return state * multiplier + increment; }
  NoiseStep twice() const { return {multiplier * multiplier, (*this)(increment)}; }
};

std::uint32_t noiseStateAfter(std::uint32_t state, std::uint64_t steps) {
  for (NoiseStep step; steps != 0; steps >>= 1U, step = step.twice()) {
    state = (steps & 1U) != 0 ? step(state) : state;
  }
  return state;
}

}  // namespace

void AudioContinuityGuard::EncoderDeleter::operator()(OpusEncoder* encoder) const {
  opus_encoder_destroy(encoder);
}

AudioContinuityGuard::AudioContinuityGuard() = default;

AudioContinuityGuard::~AudioContinuityGuard() {
  reset();
}

void AudioContinuityGuard::prime(std::uint32_t sampleRate, std::uint8_t channels,
                                 std::uint64_t frameDurationNs) {
  const std::lock_guard<std::mutex> lock(mutex_);
  frameDurationNs_ = orDefault(frameDurationNs, kDefaultFrameDurationNs);
  sampleRate_ = orDefault(sampleRate, kDefaultSampleRate);
  channels_ = orDefault(channels, kDefaultChannels);
  primed_ = true;
  // Backdates the last frame, so that the watchdog has just expired.
  expiredUntilReceived_ = watchdogTimeout_ > kLongestTimeout;
  if (!expiredUntilReceived_) {
    lastReceived_ = steady_clock::now() - milliseconds(1) - watchdogTimeout_;
  }
}

void AudioContinuityGuard::setFallbackMode(FallbackMode mode) {
  const std::lock_guard<std::mutex> lock(mutex_);
  mode_ = mode;
}

void AudioContinuityGuard::setFallbackBitrate(int bitsPerSecond) {
  const std::lock_guard<std::mutex> lock(mutex_);
  bitrate_ = std::clamp(bitsPerSecond, 6000, 256000);
}

void AudioContinuityGuard::setWatchdogTimeout(milliseconds timeout) {
  const std::lock_guard<std::mutex> lock(mutex_);
  watchdogTimeout_ = std::max(timeout, milliseconds(1));
}

void AudioContinuityGuard::noteReceived(const EncodedAudioFrame& frame, TimePoint now) {
  const std::lock_guard<std::mutex> lock(mutex_);
  received_.push_back(frame);
  lastReceived_ = now;
  expiredUntilReceived_ = false;
  primed_ = true;
  sampleRate_ = orDefault(frame.sampleRate, sampleRate_);
  channels_ = orDefault(frame.channels, channels_);
  frameDurationNs_ = orDefault(frame.durationNs, frameDurationNs_);
  nextPtsNs_ = frame.ptsNs + frameDurationNs_;
}

std::deque<EncodedAudioFrame> AudioContinuityGuard::drainReceived() {
  const std::lock_guard<std::mutex> lock(mutex_);
  std::deque<EncodedAudioFrame> frames;
  frames.swap(received_);
  return frames;
}

std::optional<EncodedAudioFrame> AudioContinuityGuard::maybeMakeFallback(TimePoint now) {
  const std::lock_guard<std::mutex> lock(mutex_);
  EncodedAudioFrame frame;
  if (!mayFallBackLocked(now) || !generateFallbackLocked(frame)) {
    return std::nullopt;
  }
  const auto nowNs = static_cast<std::uint64_t>(nanoseconds(now.time_since_epoch()).count());
  frame.ptsNs = orDefault(nextPtsNs_, nowNs);
  nextPtsNs_ = frame.ptsNs + frame.durationNs;
  return frame;
}

std::deque<EncodedAudioFrame> AudioContinuityGuard::makeFallbackUntil(std::uint64_t untilPtsNs,
                                                                      std::uint64_t maxFrames,
                                                                      TimePoint now) {
  const std::lock_guard<std::mutex> lock(mutex_);
  std::deque<EncodedAudioFrame> frames;
  if (untilPtsNs == 0 || maxFrames == 0 || !mayFallBackLocked(now)) {
    return frames;
  }
  // The timeline advances last, so that frames lost to an exception leave no gap.
  std::uint64_t nextPtsNs = alignedTimelineLocked(untilPtsNs);
  while (nextPtsNs <= untilPtsNs && frames.size() < maxFrames) {
    EncodedAudioFrame frame;
    if (!generateFallbackLocked(frame)) {
      break;
    }
    frame.ptsNs = nextPtsNs;
    nextPtsNs += frame.durationNs;
    const bool spansTarget = untilPtsNs - frame.ptsNs < frame.durationNs;
    frames.push_back(std::move(frame));
    if (spansTarget) {
      break;  // the loop condition misses it when `nextPtsNs` has wrapped around to 0
    }
  }
  nextPtsNs_ = nextPtsNs;
  return frames;
}

void AudioContinuityGuard::reset() {
  const std::lock_guard<std::mutex> lock(mutex_);
  received_.clear();
  encoder_.reset();
  encoderFormat_ = {};
  pcm_.clear();
  packet_.clear();
  primed_ = false;
  nextPtsNs_ = 0;
  frameDurationNs_ = kDefaultFrameDurationNs;
  sampleRate_ = kDefaultSampleRate;
  channels_ = kDefaultChannels;
}

bool AudioContinuityGuard::mayFallBackLocked(TimePoint now) const {
  return primed_ && mode_ != FallbackMode::Disabled && watchdogExpiredLocked(now);
}

bool AudioContinuityGuard::watchdogExpiredLocked(TimePoint now) const {
  if (expiredUntilReceived_) {
    return true;
  }
  if (watchdogTimeout_ > kLongestTimeout || now <= lastReceived_) {
    return false;
  }
  // Unsigned, since the difference to a backdated time may exceed the signed range.
  const auto count = [](TimePoint time) {
    return static_cast<std::uint64_t>(nanoseconds(time.time_since_epoch()).count());
  };
  const nanoseconds timeout = watchdogTimeout_;
  return count(now) - count(lastReceived_) > static_cast<std::uint64_t>(timeout.count());
}

// PTS of the next frame; `untilPtsNs` if it is unknown or more than one frame past `untilPtsNs`.
std::uint64_t AudioContinuityGuard::alignedTimelineLocked(std::uint64_t untilPtsNs) const {
  const bool isFarPast = nextPtsNs_ > untilPtsNs && nextPtsNs_ - untilPtsNs > frameDurationNs_;
  return nextPtsNs_ == 0 || isFarPast ? untilPtsNs : nextPtsNs_;
}

bool AudioContinuityGuard::ensureEncoderLocked(std::uint32_t sampleRate, std::uint8_t channels,
                                               std::uint64_t frameDurationNs) {
  const std::uint32_t samples = samplesPerFrame(frameDurationNs, sampleRate);
  if (encoder_ != nullptr && encoderFormat_.sampleRate == sampleRate &&
      encoderFormat_.channels == channels && encoderFormat_.frameSamples == samples) {
    return true;
  }
  int error = OPUS_OK;
  encoder_.reset();
  std::unique_ptr<OpusEncoder, EncoderDeleter> encoder(opus_encoder_create(
      static_cast<opus_int32>(sampleRate), channels, OPUS_APPLICATION_AUDIO, &error));
  if (encoder == nullptr || error != OPUS_OK) {
    return false;
  }
  opus_encoder_ctl(encoder.get(), OPUS_SET_BITRATE(bitrate_));
  opus_encoder_ctl(encoder.get(), OPUS_SET_SIGNAL(OPUS_SIGNAL_MUSIC));
  pcm_.assign(samples > kMaxFrameSamples ? 0 : std::size_t{channels} * samples, 0);
  packet_.assign(kMaxPacketBytes, 0);
  // Assigned last, so that a failed allocation leaves no encoder without its buffers.
  encoderFormat_ = {sampleRate, channels, samples};
  encoder_ = std::move(encoder);
  return true;
}

// White noise at a quarter of full scale, from a linear congruential generator.
// Inline, since a call of an exported function costs more than the sample.
inline std::int16_t AudioContinuityGuard::nextNoiseSampleLocked() {
  noiseState_ = NoiseStep{}(noiseState_);
  const std::int32_t sample = static_cast<std::int32_t>(noiseState_ >> 16U) - 32768;
  return static_cast<std::int16_t>(sample / 4);
}

bool AudioContinuityGuard::generateFallbackLocked(EncodedAudioFrame& frame) {
  if (!ensureEncoderLocked(sampleRate_, channels_, frameDurationNs_)) {
    return false;
  }
  if (encoderFormat_.frameSamples > kMaxFrameSamples) {
    // The noise advances by the skipped frame, as it does when encoding fails.
    const std::uint64_t steps = std::uint64_t{channels_} * encoderFormat_.frameSamples;
    noiseState_ = noiseStateAfter(noiseState_, mode_ == FallbackMode::Noise ? steps : 0);
    return false;
  }
  if (mode_ == FallbackMode::Noise) {
    std::generate(pcm_.begin(), pcm_.end(), [this] { return nextNoiseSampleLocked(); });
  } else {
    std::fill(pcm_.begin(), pcm_.end(), std::int16_t{0});
  }
  const opus_int32 bytes =
      opus_encode(encoder_.get(), pcm_.data(), static_cast<int>(encoderFormat_.frameSamples),
                  packet_.data(), static_cast<opus_int32>(packet_.size()));
  if (bytes < 0) {
    return false;
  }
  frame.payload.assign(packet_.begin(), packet_.begin() + bytes);
  frame.durationNs = frameDurationNs_;
  frame.sampleRate = sampleRate_;
  frame.channels = channels_;
  return true;
}

}  // namespace media_backend
