#include "record/AudioFeed.h"

#include <algorithm>
#include <cstdio>
#include <iterator>
#include <utility>

namespace station {
namespace {

using std::chrono::nanoseconds;
using std::chrono::steady_clock;

// Of fallback audio behind the video: packets may be that late, less one of them.
constexpr std::chrono::milliseconds kLag{250};

}  // namespace

AudioFeed::AudioFeed(const AudioOptions& options) : options_(options) {
  if (!options.file.empty()) {
    packets_ = readOpusFile(options.file);
  }
  if (options.isWanted()) {
    track_.emplace(options.track);
  }
  if (options.hasMicrophone()) {
    microphone_.emplace(options.microphone, *track_);
  }
}

void AudioFeed::start(steady_clock::time_point time) {
  if (!packets_.empty()) {
    receiver_.emplace(std::move(packets_), options_.reception, *track_, time);
  }
  if (microphone_) {
    microphone_->start(time);
  }
}

void AudioFeed::push(Recorder& recorder, nanoseconds videoEnd) {
  if (track_) {
    pushBefore(recorder, videoEnd, track_->take(videoEnd - kLag, steady_clock::now()));
  }
}

void AudioFeed::finish(Recorder& recorder, nanoseconds end) {
  if (receiver_) {
    receiver_->stopAt(end);
  }
  if (microphone_) {
    microphone_->stopAt(end);
  }
  if (track_) {
    pushBefore(recorder, end, track_->finish(end));
  }
}

// The video of a file falls behind on a machine that is too slow; the sound then waits for it.
void AudioFeed::pushBefore(Recorder& recorder, nanoseconds end, AudioTrack::Frames frames) {
  std::move(frames.begin(), frames.end(), std::back_inserter(early_));
  while (!early_.empty() && early_.front().ptsNs < static_cast<std::uint64_t>(end.count())) {
    recorder.pushAudio(early_.front());
    early_.pop_front();
  }
}

void AudioFeed::printSummary() const {
  if (track_) {
    const AudioTrack::Statistics statistics = track_->statistics();
    std::printf("audio: %llu packets received, %llu late, %llu fallback frames\n",
                static_cast<unsigned long long>(statistics.received - early_.size()),
                static_cast<unsigned long long>(statistics.late),
                static_cast<unsigned long long>(statistics.fallback));
  }
}

}  // namespace station
