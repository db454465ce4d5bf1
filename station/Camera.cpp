#include "Camera.h"

#include <chrono>
#include <filesystem>

#include <media_backend/MediaFileFrameSource.h>

#include "StationError.h"

namespace station {
namespace {

using std::chrono::steady_clock;

constexpr std::chrono::seconds kTimeout{5};

}  // namespace

class Camera::Source {
 public:
  explicit Source(const CameraOptions& options) {
    config_.path = options.source;
    config_.width = options.width;
    config_.height = options.height;
    config_.fps = options.fps;
    config_.loop = options.loop;
  }

  std::shared_ptr<lumora::LumoraPicture> next() {
    const auto begin = steady_clock::now();
    std::string error;
    auto picture = capture(error);
    if (picture == nullptr && !error.empty()) {
      throw StationError(ExitCode::Source, "source failed: " + error);
    }
    // The end of a file is told from a time-out by not having taken the time.
    const bool timedOut = steady_clock::now() - begin >= kTimeout;
    if (picture == nullptr && (config_.loop || timedOut)) {
      throw StationError(ExitCode::Source, "source gives no pictures: " + config_.path);
    }
    return picture;
  }

 private:
  std::shared_ptr<lumora::LumoraPicture> capture(std::string& error) {
    try {
      return source_.capture(config_, kTimeout, error);
    } catch (const std::filesystem::filesystem_error& failure) {
      error = failure.code().message() + ": " + config_.path;
      return {};
    }
  }

  media_backend::MediaFileFrameSource source_;
  media_backend::MediaFileFrameSourceConfig config_;
};

Camera::Camera(const CameraOptions& options) : source_(std::make_unique<Source>(options)) {}

Camera::~Camera() = default;

std::shared_ptr<lumora::LumoraPicture> Camera::next() {
  return source_->next();
}

}  // namespace station
