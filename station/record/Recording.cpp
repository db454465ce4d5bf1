#include "record/Recording.h"

#include <algorithm>
#include <cerrno>
#include <cmath>
#include <cstdio>
#include <limits>
#include <string>
#include <thread>
#include <utility>
#include <vector>

#include "base/StationError.h"
#include "camera/CallSource.h"

namespace station {
namespace {

using media_backend::GstVideoBackend;
using std::chrono::nanoseconds;
using std::chrono::steady_clock;

constexpr std::chrono::milliseconds kEncoderTimeout{3000};

std::uint64_t frameLimit(const RecordOptions& options, const FrameRate& rate) {
  if (options.durationSeconds <= 0) {
    return std::numeric_limits<std::uint64_t>::max();
  }
  return static_cast<std::uint64_t>(
      std::llround(std::ceil(options.durationSeconds * rate.perSecond())));
}

// Checks the codec first, before anything is opened or written.
const AudioOptions& checked(const GstVideoBackend& backend, const RecordOptions& options) {
  requireDescription(backend, Use::Record, options.recorder);
  return options.audio;
}

// Nothing for a complete track.
std::string lossText(const char* track, const PacketTrack::Counts& packets) {
  return packets.written == packets.pushed
             ? ""
             : "; lost " + std::to_string(packets.pushed - packets.written) + " of " +
                   std::to_string(packets.pushed) + " " + track + " packets";
}

std::shared_ptr<lumora::LumoraPicture> nextFrame(Camera& camera) {
  return callSource(camera.options().source, [&camera] { return camera.next(); });
}

std::shared_ptr<lumora::LumoraPicture> firstFrame(Camera& camera) {
  auto picture = nextFrame(camera);
  if (picture == nullptr) {
    throw StationError(ExitCode::Source, "source has no pictures: " + camera.options().source);
  }
  return picture;
}

}  // namespace

Recording::Recording(const GstVideoBackend& backend, const RecordOptions& options)
    : options_(options),
      audio_(checked(backend, options)),
      metadata_(options.metadata.open()),
      encoder_(options.metadata.labels),
      camera_(callSource(options.camera.source,
                         [&] { return Camera::openFor(backend, options.camera); })),
      picture_(firstFrame(*camera_)),
      segments_(options.folder, options.segments, options.recorder.encoder.bitrateBps),
      recorder_(backend,
                {options.recorder.encoder, options.recorder.segmentSeconds, options.recorder.klv,
                 options.audio.isWanted(), camera_->format(), options.folder, &segments_}) {
  recorder_.setStart(start_);
}

void Recording::run() {
  std::fprintf(stderr, "%s\n", camera_->format().feed.c_str());
  try {
    recordFrames();
  } catch (const StationError& error) {
    progress_.end();
    // A failing source leaves complete segments.
    if (error.code() == ExitCode::Source) {
      finish();
    }
    throw;
  }
  finish();
  if (!recorder_.statistics().isComplete()) {
    throw StationError(ExitCode::Incomplete, "the recording is incomplete");
  }
}

void Recording::recordFrames() {
  const std::uint64_t limit = frameLimit(options_, camera_->format().rate);
  for (; picture_ != nullptr && index_ < limit && !stop_.requested(); index_ = nextIndex()) {
    std::this_thread::sleep_until(base_ + timeOf(index_));
    recordFrame();
    if (index_ == 0) {
      recorder_.waitForFirstFrame(kEncoderTimeout);
      base_ = steady_clock::now();
      audio_.start(base_);
    }
    audio_.push(recorder_, timeOf(index_ + 1));
    recorder_.throwOnError();
    progress_.update(recorder_, timeOf(index_ + 1));
    picture_ = index_ + 1 < limit ? nextFrame(*camera_) : nullptr;
  }
}

// Everything that a host does for one frame.
void Recording::recordFrame() {
  const nanoseconds elapsed = timeOf(index_);
  std::vector<std::uint8_t> klv;
  if (options_.recorder.klv) {
    const auto time = recorder_.timeOf(index_);
    if (metadata_ != nullptr) {
      metadata_->annotate(*picture_, time);
    }
    writeTimes(*picture_, time, elapsed);
    klv = encoder_.encode(*picture_);
  }
  recorder_.push(camera_->exportPicture(*picture_), index_, klv);
}

void Recording::finish() {
  audio_.finish(recorder_, timeOf(index_));
  recorder_.finish();
  progress_.end();
  audio_.printSummary();
  printSummary();
}

nanoseconds Recording::timeOf(std::uint64_t index) const {
  return nanoseconds(camera_->format().rate.timeOf(index));
}

// A live camera may drop frames; no frame gets a timestamp in the past.
std::uint64_t Recording::nextIndex() const {
  const nanoseconds elapsed = steady_clock::now() - base_;
  const std::uint64_t due =
      camera_->format().rate.framesUntil(static_cast<GstClockTime>(elapsed.count()));
  return camera_->isLive() ? std::max(index_ + 1, due) : index_ + 1;
}

void Recording::printSummary() const {
  const Recorder::Statistics statistics = recorder_.statistics();
  const nanoseconds recorded = timeOf(index_);
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
