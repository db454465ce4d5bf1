#pragma once

#include <chrono>
#include <condition_variable>
#include <cstdint>
#include <mutex>
#include <string>
#include <thread>
#include <vector>

#include "audio/AudioTrack.h"
#include "audio/OpusFile.h"

namespace station {

// A simulated loss of all packets, in time from the track's start.
struct Dropout {
  std::chrono::nanoseconds begin;
  std::chrono::nanoseconds end;
};

// "START-END" in seconds. Throws StationError (Usage).
Dropout parseDropout(const std::string& text);

// Simulates a network source: its thread delivers a file's packets to the track in real time,
// except for those that are to be lost. Delivers nothing after the end of the file.
class AudioReceiver {
 public:
  struct Settings {
    std::vector<Dropout> dropouts;  // packets that begin in one are lost
    double lossPercent = 0;         // of the others, at random
    std::uint32_t seed = 1;
  };

  // Begins to deliver; the first packet's time is `start`. `track` outlives the receiver.
  AudioReceiver(std::vector<OpusPacket> packets, const Settings& settings, AudioTrack& track,
                std::chrono::steady_clock::time_point start);
  ~AudioReceiver() { stopAt({}); }
  AudioReceiver(const AudioReceiver&) = delete;
  AudioReceiver& operator=(const AudioReceiver&) = delete;

  // Returns after the last packet before `end`, counted from the first one's time, is delivered.
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
