#pragma once

#include <chrono>
#include <cstdint>
#include <memory>
#include <string>

#include <lumora/LumoraPicture.h>

#include <media_backend/Export.h>

namespace media_backend {

// Which file to play, and how.
struct MediaFileFrameSourceConfig {
  std::string path;            // of the file
  std::uint32_t width = 1280;  // pixels of the pictures, rounded down to even, at least 2
  std::uint32_t height = 720;  // likewise
  double fps = 30.0;           // nominal, 0.1 to 240; does not pace the frames
  bool loop = true;            // restart the file at its end
};

// Plays a media file as a simulated camera: every decoded frame in order, scaled to NV12, as fast
// as the caller takes them. Frames of more than 8192 x 8192 pixels are a failure.
//
// The pictures have the colorimetry (matrix and range) of the file's video, also after scaling, and
// do not say which: the host passes it to GstVideoBackend::setInputCaps(), whose default is
// "bt709". Where the file says nothing, and for RGB, GStreamer's rule is limited range, BT.601 up
// to 576 rows in the file and BT.709 above.
//
// The pipeline starts inside the first capture() and is reused while the configuration stays the
// same (frame rates closer than 1e-6 count as the same); another configuration restarts from the
// first frame.
// Threads: one thread at a time per object. Several objects may run at once.
class MEDIA_BACKEND_API MediaFileFrameSource {
 public:
  MediaFileFrameSource();
  ~MediaFileFrameSource();
  MediaFileFrameSource(const MediaFileFrameSource&) = delete;
  MediaFileFrameSource& operator=(const MediaFileFrameSource&) = delete;

  // Returns the next frame, waiting up to `timeout` for it (negative: not at all). A start
  // waits up to 0.5 s more for the pipeline, 1.5 s if it fails, and the teardown before a restart
  // up to 1 s. At the end of a looping file, a call may restart the file twice and wait twice.
  //
  // The caller owns the picture. Empty with an empty `error`: no frame now, without a failure
  // (timeout, or the end of a file that does not loop). Empty with a message in `error`: failure;
  // the pipeline is torn down, unless only one sample could not be converted.
  // Throws std::filesystem::filesystem_error if the path's status cannot be read; nothing changes
  // then. Throws std::bad_alloc if memory runs out; the pipeline is torn down then, too.
  std::shared_ptr<lumora::LumoraPicture> capture(const MediaFileFrameSourceConfig& config,
                                                 std::chrono::nanoseconds timeout,
                                                 std::string& error);

  // Tears the pipeline down; the next capture() begins with the first frame.
  void stop();

 private:
  struct Impl;
  std::unique_ptr<Impl> impl_;
};

}  // namespace media_backend
