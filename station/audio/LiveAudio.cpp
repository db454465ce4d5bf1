#include "audio/LiveAudio.h"

#include <cstdio>
#include <optional>

#include "audio/MicrophoneTrack.h"
#include "base/Callback.h"
#include "base/StationError.h"

namespace station {
namespace {

using std::chrono::steady_clock;

// Fallback frames are made this far behind the present: packets may be late by that, less one
// frame.
constexpr std::chrono::milliseconds kLiveLag{120};
constexpr std::chrono::milliseconds kTakeInterval{10};

}  // namespace

LiveAudio::LiveAudio(const AudioOptions& options, SharedMicrophone& microphone)
    : options_(options), microphone_(microphone) {
  if (!options.file.empty()) {
    packets_ = readOpusFile(options.file);
  }
  if (options.hasMicrophone()) {
    microphone.open();
  }
  thread_ = std::thread([this] { callGuarded([this] { run(); }); });
}

LiveAudio::~LiveAudio() {
  stop();
  thread_.join();
}

void LiveAudio::run() {
  while (waitForConsumers()) {
    play();
  }
}

void LiveAudio::play() {
  AudioTrack track(options_.track, "audio");
  std::optional<MicrophoneTrack> microphone;
  if (options_.hasMicrophone()) {
    try {
      microphone.emplace(microphone_.open(), track);
    } catch (const StationError& error) {
      std::fprintf(stderr, "note: the audio goes on without: %s\n", error.what());
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
  while (pause(kTakeInterval)) {
    const steady_clock::time_point now = steady_clock::now();
    for (const auto& frame : track.take(now - start - kLiveLag, now)) {
      deliver(frame, start + std::chrono::nanoseconds(frame.ptsNs));
    }
  }
}

}  // namespace station
