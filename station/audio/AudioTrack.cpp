#include "audio/AudioTrack.h"

#include <limits>
#include <utility>

namespace station {
namespace {

using media_backend::EncodedAudioFrame;

// On the guard's timeline 0 means unknown, so the track does not begin there.
constexpr std::uint64_t kStartNs = 1'000'000'000;
constexpr std::uint64_t kNoLimit = std::numeric_limits<std::uint64_t>::max();

// A "now" at which every watchdog has expired, for known loss.
constexpr AudioTrack::TimePoint kCertain = AudioTrack::TimePoint::max();

std::uint64_t onTimeline(std::chrono::nanoseconds time) {
  return kStartNs + static_cast<std::uint64_t>(time.count());
}

void append(AudioTrack::Frames& frames, std::deque<EncodedAudioFrame> more, bool areFallback) {
  for (EncodedAudioFrame& frame : more) {
    frames.push_back({std::move(frame), areFallback});
  }
}

}  // namespace

AudioTrack::AudioTrack(const Settings& settings, const char* part)
    : endNs_(kStartNs), metrics_(part, [this] {
        constexpr auto kCounter = Metrics::Kind::Counter;
        const Statistics now = statistics();
        return Metrics::Figures{
            {"received_packets", kCounter, "Packets received in time.", now.received},
            {"late_packets", kCounter, "Packets received too late.", now.late},
            {"fallback_frames", kCounter, "Frames made to fill gaps.", now.fallback}};
      }) {
  guard_.setFallbackMode(settings.fallback);
  guard_.setFallbackBitrate(settings.fallbackBitRate);
  guard_.setWatchdogTimeout(settings.watchdog);
  guard_.prime(48000, 1, frameNs_);
}

void AudioTrack::receive(EncodedAudioFrame packet, TimePoint now) {
  const std::lock_guard<std::mutex> lock(mutex_);
  packet.ptsNs += kStartNs;
  if (packet.ptsNs < endNs_) {
    ++statistics_.late;
    return;
  }
  // Whole frames only, the last of which ends before the packet.
  if (packet.ptsNs - endNs_ >= frameNs_) {
    fillLocked(packet.ptsNs - frameNs_, kCertain);
  }
  guard_.noteReceived(packet, now);
  frameNs_ = packet.durationNs;
  endNs_ = packet.ptsNs + packet.durationNs;
  ++statistics_.received;
}

AudioTrack::Frames AudioTrack::take(std::chrono::nanoseconds until, TimePoint now) {
  const std::lock_guard<std::mutex> lock(mutex_);
  if (until.count() > 0) {
    fillLocked(onTimeline(until) - 1, now);
  }
  return handOverLocked();
}

AudioTrack::Frames AudioTrack::finish(std::chrono::nanoseconds end) {
  const std::lock_guard<std::mutex> lock(mutex_);
  if (end.count() > 0) {
    fillLocked(onTimeline(end) - 1, kCertain);
  }
  return handOverLocked();
}

AudioTrack::Statistics AudioTrack::statistics() const {
  const std::lock_guard<std::mutex> lock(mutex_);
  return statistics_;
}

// Adds fallback frames up to the one that spans `untilNs`, if the watchdog has expired.
void AudioTrack::fillLocked(std::uint64_t untilNs, TimePoint now) {
  if (untilNs < endNs_) {
    return;
  }
  append(ready_, guard_.drainReceived(), false);
  if (endNs_ == kStartNs) {
    addFallbackLocked(guard_.makeFallbackUntil(kStartNs, 1, now));
  }
  addFallbackLocked(guard_.makeFallbackUntil(untilNs, kNoLimit, now));
}

void AudioTrack::addFallbackLocked(std::deque<EncodedAudioFrame> fallback) {
  if (!fallback.empty()) {
    endNs_ = fallback.back().ptsNs + fallback.back().durationNs;
    statistics_.fallback += fallback.size();
    append(ready_, std::move(fallback), true);
  }
}

AudioTrack::Frames AudioTrack::handOverLocked() {
  append(ready_, guard_.drainReceived(), false);
  Frames frames = std::exchange(ready_, {});
  for (Frame& frame : frames) {
    frame.ptsNs -= kStartNs;
  }
  return frames;
}

}  // namespace station
