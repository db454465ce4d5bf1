#pragma once

#include <chrono>
#include <cstdint>
#include <memory>
#include <string>

#include <lumora/LumoraPicture.h>

#include <media_backend/Export.h>

namespace media_backend {

// Which device to open, and what to request from it.
struct V4l2FrameSourceConfig {
  std::string device;          // device node, such as /dev/video0
  std::uint32_t width = 1280;  // pixels of the pictures, rounded down to even, at least 2
  std::uint32_t height = 720;  // likewise
  double fps = 30.0;           // frames per second, 0.1 to 240; drops frames, never repeats them
};

// Captures from a V4L2 camera: always its newest frame, scaled to NV12. Frames that the caller does
// not take in time are dropped.
//
// The pictures have the colorimetry (matrix and range) that the driver reports, and do not say
// which; for RGB, as in MediaFileFrameSource.
//
// The pipeline starts inside the first capture() and is reused while the configuration stays the
// same (frame rates closer than 1e-6 count as the same).
// Threads: one thread at a time per object. Several objects may run at once, each on its device.
class MEDIA_BACKEND_API V4l2FrameSource {
 public:
  V4l2FrameSource();
  ~V4l2FrameSource();
  V4l2FrameSource(const V4l2FrameSource&) = delete;
  V4l2FrameSource& operator=(const V4l2FrameSource&) = delete;

  // Returns the newest frame that no call has returned yet, waiting up to `timeout` for it
  // (negative: not at all). A start waits up to 0.5 s more for the pipeline, 1.5 s if it fails,
  // and the teardown before a restart up to 1 s.
  //
  // The caller owns the picture. Empty with an empty `error`: no frame now, without a failure.
  // Empty with a message in `error`: failure; the pipeline is torn down, unless only one sample
  // could not be converted. A camera that fails after its start, such as a busy or unplugged one,
  // is reported by the first call that gets no frame. The next call restarts it.
  // Throws std::bad_alloc if memory runs out; the pipeline is torn down then, too.
  std::shared_ptr<lumora::LumoraPicture> capture(const V4l2FrameSourceConfig& config,
                                                 std::chrono::nanoseconds timeout,
                                                 std::string& error);

  // Tears the pipeline down and closes the device.
  void stop();

 private:
  struct Impl;
  std::unique_ptr<Impl> impl_;
};

}  // namespace media_backend
