#include "record/Recording.h"

#include <cmath>
#include <cstdio>
#include <limits>
#include <string>
#include <utility>

#include "base/StationError.h"

namespace station {
namespace {

using media_backend::GstVideoBackend;
using std::chrono::nanoseconds;

constexpr std::chrono::milliseconds kEncoderTimeout{3000};

std::uint64_t frameLimit(const RecordOptions& options, const FrameRate& rate) {
  if (options.durationSeconds <= 0) {
    return std::numeric_limits<std::uint64_t>::max();
  }
  return static_cast<std::uint64_t>(
      std::llround(std::ceil(options.durationSeconds * rate.perSecond())));
}

// Nothing for a complete track.
std::string lossText(const char* track, const PacketTrack::Counts& packets) {
  return packets.written == packets.pushed
             ? ""
             : "; lost " + std::to_string(packets.pushed - packets.written) + " of " +
                   std::to_string(packets.pushed) + " " + track + " packets";
}

}  // namespace

Recording::Recording(const GstVideoBackend& backend, LiveCamera& camera, AudioFeed& audio,
                     const RecordOptions& options, std::function<void()> onEnd)
    : options_(options),
      rate_(camera.format().rate),
      limit_(frameLimit(options, rate_)),
      onEnd_(std::move(onEnd)),
      audio_(audio),
      segments_(options.folder, options.segments, options.recorder.encoder.bitrateBps),
      recorder_(backend,
                {options.recorder.encoder, options.recorder.segmentSeconds, options.recorder.klv,
                 audio.isWanted(), camera.format(), options.folder, &segments_}) {
  subscription_.emplace(camera, [this](const CameraFrame& frame) { record(frame); });
}

// Everything that a host does for one frame.
void Recording::record(const CameraFrame& frame) {
  const bool isFirst = !first_;
  first_ = first_.value_or(frame.number);
  const std::uint64_t index = frame.number - *first_;
  if (index >= limit_) {
    return;
  }
  if (isFirst) {
    recorder_.setStart(frame.time);
  }
  recorder_.push(frame.picture, index, frame.klv);
  end_ = index + 1;
  if (isFirst) {
    recorder_.waitForFirstFrame(kEncoderTimeout);
    audio_.start(std::chrono::steady_clock::now());
  }
  audio_.push(recorder_, timeOf(end_));
  recorder_.throwOnError();
  progress_.update(recorder_, timeOf(end_));
  if (end_ >= limit_) {
    onEnd_();
  }
}

void Recording::finish() {
  subscription_.reset();
  progress_.end();
  audio_.finish(recorder_, timeOf(end_));
  recorder_.finish();
  audio_.printSummary();
  printSummary();
}

nanoseconds Recording::timeOf(std::uint64_t index) const {
  return nanoseconds(rate_.timeOf(index));
}

void Recording::printSummary() const {
  const Recorder::Statistics statistics = recorder_.statistics();
  const nanoseconds recorded = timeOf(end_);
  std::printf("recorded %llu frames, %llu dropped, %llu segments, %.1f s, %s in %s%s%s\n",
              static_cast<unsigned long long>(statistics.frames),
              static_cast<unsigned long long>(statistics.dropped),
              static_cast<unsigned long long>(statistics.segments),
              std::chrono::duration<double>(recorded).count(),
              Progress::bitRate(statistics.bytes, recorded).c_str(),
              options_.folder.string().c_str(), lossText("audio", statistics.audio).c_str(),
              lossText("KLV", statistics.klv).c_str());
  std::fflush(stdout);
}

}  // namespace station
