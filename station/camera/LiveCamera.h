#pragma once

#include <atomic>
#include <chrono>
#include <condition_variable>
#include <cstdint>
#include <functional>
#include <list>
#include <memory>
#include <mutex>
#include <optional>
#include <thread>

#include <lumora/FrameExport.h>

#include "base/Metrics.h"
#include "base/StationError.h"
#include "camera/Camera.h"
#include "metadata/Klv.h"

namespace station {

// A camera that runs, at its frame rate and on its own thread, while it has subscriptions, and is
// suspended otherwise.
//
// Threads: any.
class LiveCamera {
 public:
  // Called on the camera's thread for every frame, with its KLV packet, which is empty without
  // metadata; must not block, subscribe or unsubscribe. A StationError that it throws stops the
  // camera.
  using Consumer =
      std::function<void(const std::shared_ptr<lumora::ExportedFrame>& frame, const Bytes& klv)>;
  // Writes the metadata of a picture that was just captured into its header, and returns the KLV
  // packet. Called on the camera's thread, once a picture.
  using Annotate = std::function<Bytes(lumora::LumoraPicture& picture)>;

  // Frames are delivered while it lives. Its destructor waits for a running call of the consumer.
  class Subscription {
   public:
    Subscription(LiveCamera& camera, Consumer consumer);
    ~Subscription();
    Subscription(const Subscription&) = delete;
    Subscription& operator=(const Subscription&) = delete;

   private:
    LiveCamera& camera_;
    std::list<Consumer>::iterator place_;
  };

  // Captures a first frame, so that a source that cannot be opened is reported at once: throws
  // StationError (Source). `onChange` is called on any thread after isRunning() or failure() has
  // changed.
  explicit LiveCamera(
      std::unique_ptr<Camera> camera, std::function<void()> onChange = [] {},
      Annotate annotate = [](lumora::LumoraPicture& /*picture*/) { return Bytes(); });
  ~LiveCamera();  // after every subscription
  LiveCamera(const LiveCamera&) = delete;
  LiveCamera& operator=(const LiveCamera&) = delete;

  const CameraOptions& options() const { return camera_->options(); }
  const FrameFormat& format() const { return camera_->format(); }
  bool isRunning() const;
  std::uint64_t frames() const { return frames_; }
  // The error that stopped the camera.
  std::optional<StationError> failure() const;

 private:
  void run();
  bool waitForConsumers();
  std::shared_ptr<lumora::LumoraPicture> nextPicture();
  void deliver(const std::shared_ptr<lumora::ExportedFrame>& frame, const Bytes& klv);

  const std::unique_ptr<Camera> camera_;
  const std::function<void()> onChange_;
  const Annotate annotate_;
  std::shared_ptr<lumora::LumoraPicture> picture_;  // the next to deliver
  std::atomic<std::uint64_t> frames_{0};

  mutable std::mutex mutex_;
  std::condition_variable changed_;
  std::list<Consumer> consumers_;
  std::optional<StationError> failure_;
  bool stop_ = false;
  std::thread thread_;
  const Metrics::Publication metrics_;
};

}  // namespace station
