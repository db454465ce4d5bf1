#include "record/AudioFeed.h"

#include <algorithm>
#include <cstdio>
#include <iterator>
#include <utility>

namespace station {
namespace {

using std::chrono::nanoseconds;
using std::chrono::steady_clock;

// Fallback frames are made this far behind the video: packets may be late by that, less one frame.
constexpr std::chrono::milliseconds kLag{250};

}  // namespace

AudioFeed::AudioFeed(const AudioOptions& options, SharedMicrophone& microphone)
    : options_(options), microphone_(microphone) {
  open();
  if (options.hasMicrophone()) {
    microphoneTrack_.emplace(microphone.open(), *track_);
  }
}

void AudioFeed::open() {
  if (!options_.file.empty()) {
    packets_ = readOpusFile(options_.file);
  }
  if (options_.isWanted()) {
    track_.emplace(options_.track, "recorded_audio");
  }
}

void AudioFeed::reopen() {
  earlier_ = statistics();
  early_.clear();
  receiver_.reset();
  microphoneTrack_.reset();
  track_.reset();
  open();
  if (options_.hasMicrophone()) {
    try {
      microphoneTrack_.emplace(microphone_.open(), *track_);
    } catch (const StationError& error) {
      std::fprintf(stderr, "note: %s; its track goes on without\n", error.what());
    }
  }
}

void AudioFeed::start(steady_clock::time_point time) {
  if (!packets_.empty()) {
    receiver_.emplace(std::move(packets_), options_.reception, *track_, time);
  }
  if (microphoneTrack_) {
    microphoneTrack_->start(time);
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
  if (microphoneTrack_) {
    microphoneTrack_->stopAt(end);
  }
  if (track_) {
    pushBefore(recorder, end, track_->finish(end));
  }
}

// The video of a file falls behind on a machine that is too slow; the audio then waits for it.
void AudioFeed::pushBefore(Recorder& recorder, nanoseconds end, AudioTrack::Frames frames) {
  std::move(frames.begin(), frames.end(), std::back_inserter(early_));
  while (!early_.empty() && early_.front().ptsNs < static_cast<std::uint64_t>(end.count())) {
    recorder.pushAudio(early_.front());
    early_.pop_front();
  }
}

AudioTrack::Statistics AudioFeed::statistics() const {
  AudioTrack::Statistics all = earlier_;
  if (track_) {
    const AudioTrack::Statistics now = track_->statistics();
    const auto earlyFallback = static_cast<std::uint64_t>(std::count_if(
        early_.begin(), early_.end(), [](const auto& frame) { return frame.isFallback; }));
    all.received += now.received - (early_.size() - earlyFallback);
    all.late += now.late;
    all.fallback += now.fallback - earlyFallback;
  }
  return all;
}

void AudioFeed::printSummary() const {
  if (track_) {
    const AudioTrack::Statistics statistics = AudioFeed::statistics();
    std::printf("audio: %llu packets received, %llu late, %llu fallback frames\n",
                static_cast<unsigned long long>(statistics.received),
                static_cast<unsigned long long>(statistics.late),
                static_cast<unsigned long long>(statistics.fallback));
  }
}

}  // namespace station
