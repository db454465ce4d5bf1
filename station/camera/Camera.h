#pragma once

#include <chrono>
#include <cstdint>
#include <memory>
#include <string>

#include <lumora/LumoraPicture.h>

#include "camera/CameraOptions.h"
#include "camera/FrameFeed.h"
#include "camera/FrameFormat.h"

namespace station {

// A source of pictures. `source` decides its kind: V4L2 device, still image or media file.
//
// Threads: one thread at a time.
class Camera {
 public:
  explicit Camera(const CameraOptions& options);
  virtual ~Camera();
  Camera(const Camera&) = delete;
  Camera& operator=(const Camera&) = delete;

  // Opens the source. Throws StationError: Source for a still image that cannot be read, Usage for
  // options that its kind of source does not have.
  static std::unique_ptr<Camera> open(const CameraOptions& options);

  // The same for the board's elements, as by feedInto(); of a V4L2 device without a copy, if that
  // is possible.
  static std::unique_ptr<Camera> openFor(const media_backend::GstVideoBackend& backend,
                                         const CameraOptions& options);

  const CameraOptions& options() const { return options_; }
  const FrameFormat& format() const { return format_; }

  // The next picture; null at the end of a file that does not loop. Throws StationError (Source) if
  // the source fails or is silent for five seconds.
  virtual std::shared_ptr<lumora::LumoraPicture> next() = 0;

  // Whether next() blocks until a frame is captured; otherwise the caller paces.
  virtual bool isLive() const { return false; }

  // Whether the picture of the last next() is the source's; otherwise the source is lost, and the
  // picture says so.
  virtual bool hasSignal() const { return true; }

  // How often the source was lost. Any thread.
  virtual std::uint64_t losses() const { return 0; }

  // Prepares exportPicture() for the board's elements. Throws as FrameFeed does.
  void feedInto(const media_backend::GstVideoBackend& backend);

  // A picture of this camera as a frame that `format()` can wrap. Any thread. Throws StationError
  // (Pipeline) if there is no memory.
  virtual std::shared_ptr<lumora::ExportedFrame> exportPicture(
      const lumora::LumoraPicture& picture) {
    return feed_->exportPicture(picture);
  }

  // Releases the source until the next call of next().
  virtual void suspend() {}

 protected:
  static constexpr std::chrono::seconds kTimeout{5};

  [[noreturn]] static void failSource(const std::string& reason);
  [[noreturn]] static void failSilentSource(const std::string& source);
  static bool isDevice(const std::string& source);
  // By the file's first bytes; empty if they are of no known type.
  static std::string mediaType(const std::string& path);

  const CameraOptions options_;
  FrameFormat format_;

 private:
  void begin(std::unique_ptr<FrameFeed> feed, bool hasOwnMemory);

  std::unique_ptr<FrameFeed> feed_;
};

}  // namespace station
