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
  bool loop = true;            // play the file again after its end
};

// A media file as a simulated camera: every decoded frame of the file in order, scaled to NV12, as
// fast as the caller takes them. Frames of more than 8192 x 8192 pixels are a failure.
//
// The pipeline starts inside the first capture() and is reused while the configuration stays the
// same (frame rates closer than 1e-6 count as the same); another configuration starts from the
// first frame again.
// Threads: one thread at a time per object. Several objects may run at once.
class MEDIA_BACKEND_API MediaFileFrameSource {
 public:
  MediaFileFrameSource();
  ~MediaFileFrameSource();
  MediaFileFrameSource(const MediaFileFrameSource&) = delete;
  MediaFileFrameSource& operator=(const MediaFileFrameSource&) = delete;

  // The next frame, waiting up to `timeout` for it (negative: not at all). At the end of a looping
  // file, a call may start the file again twice and wait twice.
  //
  // Returns a picture that the caller owns. Empty with an empty `error`: no frame now, nothing is
  // wrong (time-out, or the end of a file that does not loop). Empty with a message in `error`: a
  // failure; the pipeline is gone, unless only one sample could not be turned into a picture.
  // Throws std::filesystem::filesystem_error if the path's status cannot be read, std::bad_alloc if
  // memory runs out; then, too, the pipeline is gone.
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
