#include "camera/Camera.h"

#include <chrono>
#include <filesystem>
#include <fstream>
#include <regex>

#include <gst/base/gsttypefindhelper.h>
#include <media_backend/MediaFileFrameSource.h>
#include <media_backend/StillImageFrameSource.h>
#include <media_backend/V4l2FrameSource.h>

#include "base/StationError.h"
#include "camera/Playlists.h"

namespace station {
namespace {

using std::chrono::steady_clock;
using Picture = std::shared_ptr<lumora::LumoraPicture>;

constexpr std::chrono::seconds kTimeout{5};

// Without the place in GStreamer's source, which the library's messages contain: one line for
// users.
[[noreturn]] void failSource(const std::string& reason) {
  static const std::regex kPlace(R"( \([^ ]+\(\d+\): \w+ \(\): [^\n]*(?:\)$|\n))");
  std::smatch place;
  std::string line = reason;
  if (std::regex_search(reason, place, kPlace)) {
    const std::string rest = place.suffix();
    line = place.prefix().str() + (rest.empty() ? "" : " (" + rest);
  }
  throw StationError(ExitCode::Source, "source failed: " + line);
}

[[noreturn]] void failSilentSource(const std::string& source) {
  throw StationError(ExitCode::Source, "source gives no pictures: " + source);
}

// By the file's first bytes; empty if they are of no known type.
std::string mediaType(const std::string& path) {
  std::string bytes(4096, '\0');
  std::ifstream stream(path, std::ios::binary);
  stream.read(bytes.data(), static_cast<std::streamsize>(bytes.size()));
  g_autoptr(GstCaps) caps =
      gst_type_find_helper_for_data(nullptr, reinterpret_cast<const guint8*>(bytes.data()),
                                    static_cast<gsize>(stream.gcount()), nullptr);
  return caps != nullptr ? gst_structure_get_name(gst_caps_get_structure(caps, 0)) : "";
}

class MediaFile : public Camera {
 public:
  explicit MediaFile(const CameraOptions& options) : Camera(options) {
    config_.path = options.source;
    config_.width = options.width;
    config_.height = options.height;
    config_.fps = options.fps;
    config_.loop = options.loop;
  }

  Picture next() override {
    const auto begin = steady_clock::now();
    std::string error;
    Picture picture = source_.capture(config_, kTimeout, error);
    if (picture == nullptr && !error.empty()) {
      fail(error);
    }
    // capture() returns at once at the end of the file, and otherwise only after kTimeout.
    const bool timedOut = steady_clock::now() - begin >= kTimeout;
    if (picture == nullptr && (config_.loop || timedOut)) {
      fail("");
    }
    return picture;
  }

 private:
  [[noreturn]] void fail(const std::string& error) const {
    // A file without video leaves its other tracks unlinked, or plays nothing.
    if (error.find("not-linked") != std::string::npos ||
        mediaType(config_.path).rfind("audio/", 0) == 0) {
      failSource("no video in it: " + config_.path);
    }
    if (error.empty()) {
      failSilentSource(config_.path);
    }
    failSource(error);
  }

  media_backend::MediaFileFrameSource source_;
  media_backend::MediaFileFrameSourceConfig config_;
};

class DeviceCamera : public Camera {
 public:
  explicit DeviceCamera(const CameraOptions& options) : Camera(options) {
    config_.device = options.source;
    config_.width = options.width;
    config_.height = options.height;
    config_.fps = options.fps;
  }

  Picture next() override {
    std::string error;
    Picture picture = source_.capture(config_, kTimeout, error);
    if (picture == nullptr && !error.empty()) {
      failSource(error);
    }
    if (picture == nullptr) {
      failSilentSource(config_.device);
    }
    return picture;
  }

  bool isLive() const override { return true; }
  void suspend() override { source_.stop(); }

 private:
  media_backend::V4l2FrameSource source_;
  media_backend::V4l2FrameSourceConfig config_;
};

class StillImage : public Camera {
 public:
  explicit StillImage(const CameraOptions& options) : Camera(options) {
    std::string error;
    picture_ = media_backend::StillImageFrameSource().load({options.source}, error);
    if (picture_ == nullptr) {
      failSource(error);
    }
    options_.width = picture_->width();
    options_.height = picture_->height();
  }

  Picture next() override { return picture_; }
  const char* colorimetry() const override { return "1:4:0:0"; }  // full-range BT.601

 private:
  Picture picture_;
};

}  // namespace

Camera::Camera(const CameraOptions& options) : options_(options) {}

Camera::~Camera() = default;

std::unique_ptr<Camera> Camera::open(const CameraOptions& options) {
  std::error_code error;
  const std::filesystem::file_status status = std::filesystem::status(options.source, error);
  if (status.type() == std::filesystem::file_type::none) {
    failSource(error.message() + ": " + options.source);
  }
  // /dev/videoN is a device even while unplugged.
  if (std::filesystem::is_character_file(status) || options.source.rfind("/dev/video", 0) == 0) {
    return std::make_unique<DeviceCamera>(options);
  }
  const std::string type =
      std::filesystem::is_regular_file(status) ? mediaType(options.source) : "";
  if (type.rfind("image/", 0) == 0 && type != "image/gif") {  // an animation is a media file
    return std::make_unique<StillImage>(options);
  }
  if (!options.allowPlaylists) {
    refusePlaylists(options.source, type);
  }
  return std::make_unique<MediaFile>(options);
}

}  // namespace station
