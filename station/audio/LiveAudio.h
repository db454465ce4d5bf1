#pragma once

#include <chrono>
#include <condition_variable>
#include <functional>
#include <list>
#include <mutex>
#include <thread>
#include <vector>

#include "audio/AudioOptions.h"

namespace station {

// Live sound for servers: a gapless track of Opus packets, which runs on its own thread while it
// has subscriptions. Begins anew with the first of them.
//
// Threads: any.
class LiveAudio {
 public:
  // Called for each packet on the sound's thread, with the time at which it begins; must not block,
  // subscribe or unsubscribe.
  using Consumer = std::function<void(const media_backend::EncodedAudioFrame& packet,
                                      std::chrono::steady_clock::time_point begin)>;

  // Packets are delivered while it lives. Its destructor waits for a running call of the consumer.
  class Subscription {
   public:
    Subscription(LiveAudio& audio, Consumer consumer);
    ~Subscription();
    Subscription(const Subscription&) = delete;
    Subscription& operator=(const Subscription&) = delete;

   private:
    LiveAudio& audio_;
    std::list<Consumer>::iterator place_;
  };

  // Reads the file, or tries the microphone: throws StationError (Source).
  explicit LiveAudio(const AudioOptions& options);
  ~LiveAudio();  // after every subscription
  LiveAudio(const LiveAudio&) = delete;
  LiveAudio& operator=(const LiveAudio&) = delete;

  // Whether packets come all the time.
  bool isGapless() const {
    return options_.track.fallback != media_backend::AudioContinuityGuard::FallbackMode::Disabled;
  }

 private:
  void run();
  void play();
  bool waitForConsumers();
  bool pause();
  void deliver(const AudioTrack::Frames& frames, std::chrono::steady_clock::time_point start);

  const AudioOptions options_;
  std::vector<OpusPacket> packets_;

  std::mutex mutex_;
  std::condition_variable changed_;
  std::list<Consumer> consumers_;
  bool stop_ = false;
  std::thread thread_;
};

}  // namespace station
