#pragma once

#include <atomic>
#include <chrono>
#include <cstdint>
#include <functional>
#include <memory>
#include <mutex>
#include <optional>
#include <thread>
#include <vector>

#include <lumora/FrameExport.h>

#include "base/LiveSource.h"
#include "base/Metrics.h"
#include "base/StationError.h"
#include "camera/Camera.h"
#include "camera/CameraFrame.h"

namespace station {

// A camera that runs, at its frame rate and on its own thread, while it has subscriptions, and is
// suspended otherwise. A consumer may block for its first frame only; a StationError that it throws
// stops the camera.
//
// Threads: any.
class LiveCamera : public LiveSource<const CameraFrame&> {
 public:
  // Writes a picture's metadata and returns their KLV packet. Called on the camera's thread.
  using Annotate = std::function<std::vector<std::uint8_t>(
      lumora::LumoraPicture& picture, std::chrono::system_clock::time_point time)>;

  // Captures a first frame, so that a source that cannot be opened is reported at once: throws
  // StationError (Source). `onChange` is called on any thread after isRunning(), hasEnded() or
  // failure() has changed. Without `annotate`, frames have no metadata.
  explicit LiveCamera(
      std::unique_ptr<Camera> camera, std::function<void()> onChange = [] {},
      Annotate annotate = nullptr);
  ~LiveCamera();  // after every subscription
  LiveCamera(const LiveCamera&) = delete;
  LiveCamera& operator=(const LiveCamera&) = delete;

  const CameraOptions& options() const { return camera_->options(); }
  const FrameFormat& format() const { return camera_->format(); }
  // Begins to deliver frames; to be called once. First subscriptions may be made before, so that
  // they get the first frame.
  void start();
  // Whether it has delivered the last frame of a file that does not loop.
  bool hasEnded() const;
  std::uint64_t frames() const { return frames_; }
  // The error that stopped the camera.
  std::optional<StationError> failure() const;

 private:
  using Clock = std::chrono::steady_clock;

  void run();
  void deliverPictures();
  void noteSignal();
  void pace();
  std::uint64_t numberAt(Clock::time_point time) const;
  std::shared_ptr<lumora::LumoraPicture> nextPicture();
  void deliverPicture();
  std::chrono::nanoseconds timeOf(std::uint64_t number) const;

  const std::unique_ptr<Camera> camera_;
  const Annotate annotate_;
  std::shared_ptr<lumora::LumoraPicture> picture_;  // the next to deliver; null after the last

  // On its thread.
  std::uint64_t number_ = 0;  // of that picture
  bool hasSignal_ = true;     // whether it is the source's
  std::uint64_t first_ = 0;   // since it has run without a break
  std::chrono::system_clock::time_point firstTime_;
  Clock::time_point firstDelivered_;
  Clock::time_point due_;
  std::atomic<std::uint64_t> frames_{0};

  mutable std::mutex mutex_;
  std::optional<StationError> failure_;
  bool hasEnded_ = false;
  std::thread thread_;
  const Metrics::Publication metrics_;
};

}  // namespace station
