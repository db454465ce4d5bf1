#include "record/AudioFeed.h"

#include <cstdio>
#include <utility>

namespace station {
namespace {

using std::chrono::nanoseconds;
using std::chrono::steady_clock;

// Of fallback audio behind the video: packets may be that late, less one of them.
constexpr std::chrono::milliseconds kLag{250};

void pushAll(Recorder& recorder, const AudioTrack::Frames& frames) {
  for (const media_backend::EncodedAudioFrame& frame : frames) {
    recorder.pushAudio(frame);
  }
}

}  // namespace

AudioFeed::AudioFeed(const AudioOptions& options) : options_(options) {
  if (!options.file.empty()) {
    packets_ = readOpusFile(options.file);
  }
  if (options.isWanted()) {
    track_.emplace(options.track);
  }
}

void AudioFeed::start(steady_clock::time_point time) {
  if (!packets_.empty()) {
    receiver_.emplace(std::move(packets_), options_.reception, *track_, time);
  }
}

void AudioFeed::push(Recorder& recorder, nanoseconds videoTime) {
  if (track_) {
    pushAll(recorder, track_->take(videoTime - kLag, steady_clock::now()));
  }
}

void AudioFeed::finish(Recorder& recorder, nanoseconds end) {
  if (receiver_) {
    receiver_->stopAt(end);
  }
  if (track_) {
    pushAll(recorder, track_->finish(end));
  }
}

void AudioFeed::printSummary() const {
  if (track_) {
    const AudioTrack::Statistics statistics = track_->statistics();
    std::printf("audio: %llu packets received, %llu late, %llu fallback frames\n",
                static_cast<unsigned long long>(statistics.received),
                static_cast<unsigned long long>(statistics.late),
                static_cast<unsigned long long>(statistics.fallback));
  }
}

}  // namespace station
