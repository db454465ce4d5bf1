#pragma once

#include <atomic>
#include <chrono>
#include <cstdint>
#include <future>
#include <memory>
#include <string>
#include <utility>

#include "camera/Camera.h"

namespace station {

// A camera that opens its source again after a failure: after 1, 2 and 5 seconds, then every 5
// seconds. Meanwhile, next() returns a still picture that says "no signal".
//
// The destructor waits for an attempt in progress, ten seconds at most.
//
// next() throws if the source fails before its first picture or comes back in another format, and
// if there is no memory for the still picture.
class ReconnectingCamera : public Camera {
 public:
  // Opens the source for the board's elements, as Camera::openFor() does.
  ReconnectingCamera(const media_backend::GstVideoBackend& backend, const CameraOptions& options);

  std::shared_ptr<lumora::LumoraPicture> next() override;
  bool isLive() const override { return camera_ != nullptr && camera_->isLive(); }
  bool hasSignal() const override { return camera_ != nullptr; }
  std::uint64_t losses() const override { return losses_; }
  std::shared_ptr<lumora::ExportedFrame> exportPicture(
      const lumora::LumoraPicture& picture) override;
  void suspend() override;

 private:
  using Clock = std::chrono::steady_clock;
  using Picture = std::shared_ptr<lumora::LumoraPicture>;
  using Opened = std::pair<std::unique_ptr<Camera>, Picture>;

  void lose(const std::string& reason);
  Picture tryAgain();
  Opened open() const;
  Picture accept(Opened opened);

  const media_backend::GstVideoBackend& backend_;
  std::unique_ptr<Camera> camera_;  // null while it is lost
  bool hasBegun_ = false;
  std::atomic<std::uint64_t> losses_{0};

  // While it is lost.
  Picture still_;
  std::shared_ptr<lumora::ExportedFrame> stillFrame_;
  std::string reason_;
  Clock::time_point retryAt_;
  std::size_t attempts_ = 0;
  std::future<Opened> attempt_;  // last: uses the others
};

}  // namespace station
