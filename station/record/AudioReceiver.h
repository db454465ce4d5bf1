#pragma once

#include <chrono>
#include <condition_variable>
#include <cstdint>
#include <mutex>
#include <string>
#include <thread>
#include <vector>

#include "record/AudioTrack.h"
#include "record/OpusFile.h"

namespace station {

// A stretch of time in which the source is silent, from the track's start.
struct Dropout {
  std::chrono::nanoseconds begin;
  std::chrono::nanoseconds end;
};

// "START-END" in seconds. Throws StationError (Usage).
Dropout parseDropout(const std::string& text);

// The packets of a file as a network source: a thread of its own delivers each to the track at its
// time, but for those that get lost on the way. Falls silent at the file's end.
class AudioReceiver {
 public:
  struct Settings {
    std::vector<Dropout> dropouts;  // packets that begin in one are lost
    double lossPercent = 0;         // of the others, at random
    std::uint32_t seed = 1;
  };

  // Delivers from now on; the first packet's time is `start`. `track` outlives the receiver.
  AudioReceiver(std::vector<OpusPacket> packets, const Settings& settings, AudioTrack& track,
                std::chrono::steady_clock::time_point start);
  ~AudioReceiver() { stopAt({}); }
  AudioReceiver(const AudioReceiver&) = delete;
  AudioReceiver& operator=(const AudioReceiver&) = delete;

  // Returns when the last packet before `end` has been delivered, from the first one's time.
  void stopAt(std::chrono::nanoseconds end);

 private:
  void run(std::chrono::steady_clock::time_point start);
  bool waitFor(std::chrono::nanoseconds time, std::chrono::steady_clock::time_point start);

  const std::vector<OpusPacket> packets_;
  const Settings settings_;
  AudioTrack& track_;
  std::mutex mutex_;
  std::condition_variable stopping_;
  std::chrono::nanoseconds end_ = std::chrono::nanoseconds::max();
  std::thread thread_;  // last: it uses everything above
};

}  // namespace station
