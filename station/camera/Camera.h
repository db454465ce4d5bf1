#pragma once

#include <memory>
#include <string>

#include <lumora/LumoraPicture.h>

namespace station {

struct CameraOptions {
  std::string source;         // V4L2 device, still image or media file
  unsigned int width = 1280;  // pixels, even
  unsigned int height = 720;  // pixels, even
  unsigned int fps = 30;      // of a device: at most
  bool loop = true;           // play a media file again after its end
};

// A source of pictures; what kind of one it is, is seen from what `source` names.
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

  // The options with the size of the pictures that there will be: a still image keeps its own.
  const CameraOptions& options() const { return options_; }

  // The next picture; empty at the end of a file that does not loop. Throws StationError (Source)
  // when the source fails or gives nothing for seconds.
  virtual std::shared_ptr<lumora::LumoraPicture> next() = 0;

  // Whether next() waits for the time of the picture; otherwise pacing is the caller's.
  virtual bool pacesItself() const { return false; }

  // GStreamer colorimetry of the pictures; null where the source does not tell.
  virtual const char* colorimetry() const { return nullptr; }

  // Lets the source go until the next picture is wanted.
  virtual void rest() {}

 protected:
  CameraOptions options_;
};

}  // namespace station
