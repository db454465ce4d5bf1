#include "audio/AudioReceiver.h"

#include <algorithm>
#include <cstdio>
#include <random>
#include <utility>

#include "base/Callback.h"
#include "base/StationError.h"

namespace station {

using std::chrono::nanoseconds;
using std::chrono::steady_clock;

Dropout parseDropout(const std::string& text) {
  double begin = 0;
  double end = 0;
  int length = 0;
  const int fields = std::sscanf(text.c_str(), "%lf-%lf%n", &begin, &end, &length);
  const bool isSpan = begin >= 0 && begin < end && end <= 1e9;  // false for NaN
  if (fields != 2 || static_cast<std::size_t>(length) != text.size() || !isSpan) {
    throw StationError(ExitCode::Usage, "a dropout is START-END in seconds, not " + text);
  }
  const auto inNanoseconds = [](double seconds) {
    return std::chrono::duration_cast<nanoseconds>(std::chrono::duration<double>(seconds));
  };
  return {inNanoseconds(begin), inNanoseconds(end)};
}

AudioReceiver::AudioReceiver(std::vector<OpusPacket> packets, const Settings& settings,
                             AudioTrack& track, steady_clock::time_point start)
    : packets_(std::move(packets)),
      settings_(settings),
      track_(track),
      thread_([this, start] { callGuarded([&] { run(start); }); }) {}

void AudioReceiver::stopAt(nanoseconds end) {
  {
    const std::lock_guard<std::mutex> lock(mutex_);
    end_ = end;
  }
  stopping_.notify_all();
  if (thread_.joinable()) {
    thread_.join();
  }
}

void AudioReceiver::run(steady_clock::time_point start) {
  std::mt19937 random(settings_.seed);
  std::uniform_real_distribution<double> percent(0, 100);
  nanoseconds time{0};
  for (const OpusPacket& packet : packets_) {
    if (!waitFor(time, start)) {
      return;
    }
    const auto covers = [time](const Dropout& dropout) {
      return time >= dropout.begin && time < dropout.end;
    };
    const bool dropped = std::any_of(settings_.dropouts.begin(), settings_.dropouts.end(), covers);
    if (!dropped && percent(random) >= settings_.lossPercent) {
      media_backend::EncodedAudioFrame frame;
      frame.payload = packet.payload;
      frame.ptsNs = static_cast<std::uint64_t>(time.count());
      frame.durationNs = static_cast<std::uint64_t>(packet.duration.count());
      track_.receive(std::move(frame), steady_clock::now());
    }
    time += packet.duration;
  }
}

// False after stopAt() with an earlier time.
bool AudioReceiver::waitFor(nanoseconds time, steady_clock::time_point start) {
  std::unique_lock<std::mutex> lock(mutex_);
  return !stopping_.wait_until(lock, start + time, [this, time] { return time >= end_; });
}

}  // namespace station
