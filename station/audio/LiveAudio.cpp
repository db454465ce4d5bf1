#include "audio/LiveAudio.h"

#include <cstdio>
#include <optional>
#include <utility>

#include "base/Callback.h"
#include "base/StationError.h"

namespace station {
namespace {

using std::chrono::steady_clock;

// Of fallback frames behind the present: packets may be that late, less one of them.
constexpr std::chrono::milliseconds kLiveLag{120};
constexpr std::chrono::milliseconds kTakeInterval{10};

}  // namespace

LiveAudio::Subscription::Subscription(LiveAudio& audio, Consumer consumer) : audio_(audio) {
  const std::lock_guard lock(audio_.mutex_);
  place_ = audio_.consumers_.insert(audio_.consumers_.end(), std::move(consumer));
  audio_.changed_.notify_all();
}

LiveAudio::Subscription::~Subscription() {
  const std::lock_guard lock(audio_.mutex_);
  audio_.consumers_.erase(place_);
  audio_.changed_.notify_all();
}

LiveAudio::LiveAudio(const AudioOptions& options) : options_(options) {
  if (!options.file.empty()) {
    packets_ = readOpusFile(options.file);
  }
  if (options.hasMicrophone()) {
    AudioTrack track(options.track);
    Microphone(options.microphone, track);
  }
  thread_ = std::thread([this] { callGuarded([this] { run(); }); });
}

LiveAudio::~LiveAudio() {
  {
    const std::lock_guard lock(mutex_);
    stop_ = true;
  }
  changed_.notify_all();
  thread_.join();
}

void LiveAudio::run() {
  while (waitForConsumers()) {
    play();
  }
}

// Whether there is one.
bool LiveAudio::waitForConsumers() {
  std::unique_lock lock(mutex_);
  changed_.wait(lock, [this] { return stop_ || !consumers_.empty(); });
  return !stop_;
}

// Whether there are still consumers after an interval.
bool LiveAudio::pause() {
  std::unique_lock lock(mutex_);
  return !changed_.wait_for(lock, kTakeInterval, [this] { return stop_ || consumers_.empty(); });
}

void LiveAudio::play() {
  AudioTrack track(options_.track);
  std::optional<Microphone> microphone;
  if (options_.hasMicrophone()) {
    try {
      microphone.emplace(options_.microphone, track);
    } catch (const StationError& error) {
      std::fprintf(stderr, "note: the sound goes on without: %s\n", error.what());
    }
  }
  const steady_clock::time_point start = steady_clock::now();
  std::optional<AudioReceiver> receiver;
  if (!packets_.empty()) {
    receiver.emplace(packets_, options_.reception, track, start);
  }
  if (microphone) {
    microphone->start(start);
  }
  while (pause()) {
    const steady_clock::time_point now = steady_clock::now();
    deliver(track.take(now - start - kLiveLag, now), start);
  }
}

void LiveAudio::deliver(const AudioTrack::Frames& frames, steady_clock::time_point start) {
  const std::lock_guard lock(mutex_);
  for (const media_backend::EncodedAudioFrame& frame : frames) {
    for (const Consumer& consumer : consumers_) {
      consumer(frame, start + std::chrono::nanoseconds(frame.ptsNs));
    }
  }
}

}  // namespace station
