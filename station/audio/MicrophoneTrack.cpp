#include "audio/MicrophoneTrack.h"

#include <cstdlib>
#include <utility>

namespace station {
namespace {

// Longer than a sound card's buffer and the encoder take.
constexpr std::chrono::milliseconds kLastPackets{250};
// Less than half a packet: the clocks of the sound card and the system differ.
constexpr std::int64_t kJitterNs = 9'000'000;

}  // namespace

MicrophoneTrack::MicrophoneTrack(std::shared_ptr<Microphone> microphone, AudioTrack& track)
    : microphone_(std::move(microphone)),
      track_(track),
      subscription_(*microphone_,
                    [this](const auto& packet, auto begin) { receive(packet, begin); }) {}

void MicrophoneTrack::start(std::chrono::steady_clock::time_point time) {
  const std::lock_guard lock(mutex_);
  start_ = time;
  delivers_ = true;
}

void MicrophoneTrack::stopAt(std::chrono::nanoseconds end) {
  std::unique_lock lock(mutex_);
  delivered_.wait_for(lock, kLastPackets, [&] { return expected_ >= end.count(); });
  delivers_ = false;
}

void MicrophoneTrack::receive(media_backend::EncodedAudioFrame packet,
                              std::chrono::steady_clock::time_point begin) {
  const std::lock_guard lock(mutex_);
  std::int64_t time = std::chrono::nanoseconds(begin - start_).count();
  if (!delivers_ || time < -kJitterNs) {
    return;
  }
  if (std::abs(time - expected_) <= kJitterNs) {
    time = expected_;
  }
  expected_ = time + static_cast<std::int64_t>(packet.durationNs);
  packet.ptsNs = static_cast<std::uint64_t>(time);
  track_.receive(std::move(packet), std::chrono::steady_clock::now());
  delivered_.notify_all();
}

}  // namespace station
