#pragma once

#include <cstdint>
#include <memory>
#include <optional>
#include <string>

#include <media_backend/MediaFileFrameSource.h>

#include "camera/Camera.h"
#include "camera/FrameShape.h"
#include "camera/FrameTimes.h"

namespace station {

// A media file as a camera: in its own size, frame rate and colours, unless the options ask for
// another size or rate.
class MediaFile : public Camera {
 public:
  explicit MediaFile(const CameraOptions& options);

  std::shared_ptr<lumora::LumoraPicture> next() override;

 private:
  std::shared_ptr<lumora::LumoraPicture> capture();
  GstClockTime nextFileTime();
  [[noreturn]] void fail(const std::string& error) const;

  media_backend::MediaFileFrameSource source_;
  media_backend::MediaFileFrameSourceConfig config_;
  unsigned int quarters_;
  std::optional<Borders> borders_;
  FrameRate fileRate_;
  std::optional<FrameTimes> times_;                 // of a file without a constant rate
  std::uint64_t captured_ = 0;                      // frames of the file
  std::uint64_t given_ = 0;                         // frames of the camera
  GstClockTime loopBegin_ = 0;                      // of this round of the file
  GstClockTime fileTime_ = 0;                       // of the file's next frame
  std::shared_ptr<lumora::LumoraPicture> picture_;  // the last one captured
};

}  // namespace station
