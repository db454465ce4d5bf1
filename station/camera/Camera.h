#pragma once

#include <memory>

#include <lumora/LumoraPicture.h>

#include "camera/CameraOptions.h"

namespace station {

// A source of frames. `source` decides its kind: V4L2 device, still image or media file.
//
// Threads: one thread at a time.
class Camera {
 public:
  explicit Camera(const CameraOptions& options);
  virtual ~Camera();
  Camera(const Camera&) = delete;
  Camera& operator=(const Camera&) = delete;

  // Opens the source. Throws StationError (Source) for a still image that cannot be read.
  static std::unique_ptr<Camera> open(const CameraOptions& options);

  // The options, with the size that the frames have: a still image keeps its own.
  const CameraOptions& options() const { return options_; }

  // The next frame; null at the end of a file that does not loop. Throws StationError (Source) if
  // the source fails or is silent for five seconds.
  virtual std::shared_ptr<lumora::LumoraPicture> next() = 0;

  // Whether next() blocks until a frame is captured; otherwise the caller paces.
  virtual bool isLive() const { return false; }

  // GStreamer colorimetry of the frames; null if the source does not know.
  virtual const char* colorimetry() const { return nullptr; }

  // Releases the source until the next call of next().
  virtual void suspend() {}

 protected:
  CameraOptions options_;
};

}  // namespace station
