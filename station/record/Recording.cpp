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
                     SegmentHook& hook, const RecordOptions& options, std::function<void()> onEnd)
    : backend_(backend),
      options_(options),
      rate_(camera.format().rate),
      limit_(frameLimit(options, rate_)),
      onEnd_(std::move(onEnd)),
      audio_(audio),
      segments_(options.folder, options.segments, options.recorder.encoder.bitrateBps, hook),
      settings_{options.recorder.encoder,
                options.recorder.segmentSeconds,
                options.recorder.klv,
                audio.isWanted(),
                camera.format(),
                options.folder,
                &segments_} {
  startRecorder();
  metrics_.emplace("record", [this] { return figures(); });
  subscription_.emplace(camera, [this](const CameraFrame& frame) { record(frame); });
}

void Recording::record(const CameraFrame& frame) {
  begin_ = begin_.value_or(frame.number);
  const std::uint64_t index = frame.number - *begin_;
  if (index >= limit_) {
    return;
  }
  if (frame.hasSignal) {
    write(frame);
  } else if (recorder_ && first_) {
    completeRecorder();
    ++interruptions_;
  }
  if (index + 1 >= limit_) {
    onEnd_();
  }
}

void Recording::startRecorder() {
  const std::lock_guard lock(mutex_);
  recorder_.emplace(backend_, settings_);
  first_.reset();
}

// Everything that a host does for one frame.
void Recording::write(const CameraFrame& frame) {
  if (!recorder_) {
    audio_.reopen();
    startRecorder();
  }
  const bool isFirst = !first_;
  first_ = first_.value_or(frame.number);
  const std::uint64_t index = frame.number - *first_;
  if (isFirst) {
    recorder_->setStart(frame.time);
  }
  recorder_->push(frame.picture, index, frame.klv);
  end_ = index + 1;
  if (isFirst) {
    recorder_->waitForFirstFrame(kEncoderTimeout);
    audio_.start(std::chrono::steady_clock::now());
  }
  audio_.push(*recorder_, timeOf(end_));
  recorder_->throwOnError();
  if (progress_.isDue()) {
    progress_.print(statistics(), recorder_->segmentName(), timeOf(completedFrames_ + end_));
  }
}

void Recording::completeRecorder() {
  progress_.end();
  audio_.finish(*recorder_, timeOf(end_));
  recorder_->finish();
  const std::lock_guard lock(mutex_);
  completed_ += recorder_->statistics();
  completedFrames_ += std::exchange(end_, 0);
  recorder_.reset();
}

void Recording::finish() {
  subscription_.reset();
  if (recorder_ && first_) {
    completeRecorder();
  }
  audio_.printSummary();
  printSummary();
}

nanoseconds Recording::timeOf(std::uint64_t index) const {
  return nanoseconds(rate_.timeOf(index));
}

Recorder::Statistics Recording::statistics() const {
  const std::lock_guard lock(mutex_);
  Recorder::Statistics all = completed_;
  return recorder_ ? all += recorder_->statistics() : all;
}

Metrics::Figures Recording::figures() const {
  constexpr auto kCounter = Metrics::Kind::Counter;
  const Recorder::Statistics now = statistics();
  return {{"frames", kCounter, "Frames in the files.", now.frames},
          {"dropped", kCounter, "Frames that the encoder was too slow for.", now.dropped},
          {"bytes", kCounter, "Bytes of video in the files.", now.bytes},
          {"segments", kCounter, "Files begun.", now.segments}};
}

void Recording::printSummary() const {
  const Recorder::Statistics statistics = Recording::statistics();
  const nanoseconds recorded = timeOf(completedFrames_);
  const std::string losses =
      interruptions_ == 0 ? "" : "; camera losses: " + std::to_string(interruptions_);
  std::printf("recorded %llu frames, %llu dropped, %llu segments, %.1f s, %s in %s%s%s%s\n",
              static_cast<unsigned long long>(statistics.frames),
              static_cast<unsigned long long>(statistics.dropped),
              static_cast<unsigned long long>(statistics.segments),
              std::chrono::duration<double>(recorded).count(),
              Progress::bitRate(statistics.bytes, recorded).c_str(),
              options_.folder.string().c_str(), lossText("audio", statistics.audio).c_str(),
              lossText("KLV", statistics.klv).c_str(), losses.c_str());
  std::fflush(stdout);
}

}  // namespace station
