#pragma once

#include <memory>
#include <string>

#include <lumora/LumoraPicture.h>

namespace station {

struct CameraOptions {
  std::string source;         // media file
  unsigned int width = 1280;  // pixels, even
  unsigned int height = 720;  // pixels, even
  unsigned int fps = 30;
  bool loop = true;  // play the source again after its end
};

// A source of pictures, whatever its kind.
class Camera {
 public:
  explicit Camera(const CameraOptions& options);
  ~Camera();
  Camera(const Camera&) = delete;
  Camera& operator=(const Camera&) = delete;

  // The next picture, which the caller owns; empty at the end of a file that does not loop. Throws
  // StationError (Source) when the source fails or gives nothing for seconds.
  std::shared_ptr<lumora::LumoraPicture> next();

 private:
  class Source;
  std::unique_ptr<Source> source_;
};

}  // namespace station
