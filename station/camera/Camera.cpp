#include "camera/Camera.h"

#include <filesystem>
#include <fstream>
#include <mutex>
#include <regex>
#include <utility>

#include <gst/base/gsttypefindhelper.h>
#include <media_backend/StillImageFrameSource.h>
#include <media_backend/V4l2FrameSource.h>

#include "base/Pipelines.h"
#include "base/StationError.h"
#include "camera/DriverCamera.h"
#include "camera/MediaFile.h"
#include "camera/MediaFormat.h"
#include "camera/Playlists.h"

namespace station {
namespace {

using Picture = std::shared_ptr<lumora::LumoraPicture>;

class DeviceCamera : public Camera {
 public:
  explicit DeviceCamera(const CameraOptions& options) : Camera(options) {
    const auto orDefault = [](unsigned int value, unsigned int otherwise) {
      return value != 0 ? value : otherwise;
    };
    config_.device = options.source;
    config_.width = format_.width = orDefault(options.width, format_.width);
    config_.height = format_.height = orDefault(options.height, format_.height);
    format_.rate.numerator = static_cast<int>(orDefault(options.fps, 30));
    config_.fps = format_.rate.perSecond();
    format_.colorimetry = readDeviceColorimetry(config_);
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
    if (options.width != 0 || options.height != 0) {
      throw StationError(ExitCode::Usage, "a still image keeps its size: " + options.source +
                                              " takes neither --width nor --height");
    }
    std::string error;
    picture_ = media_backend::StillImageFrameSource().load({options.source}, error);
    if (picture_ == nullptr) {
      failSource(error);
    }
    format_.width = picture_->width();
    format_.height = picture_->height();
    format_.rate.numerator = options.fps != 0 ? static_cast<int>(options.fps) : 30;
    format_.colorimetry = kJpegColorimetry;
  }

  Picture next() override { return picture_; }

  // Without a copy, all frames are one.
  std::shared_ptr<lumora::ExportedFrame> exportPicture(
      const lumora::LumoraPicture& picture) override {
    if (format_.isPlain) {
      return Camera::exportPicture(picture);
    }
    std::call_once(isExported_, [&] { frame_ = Camera::exportPicture(picture); });
    return frame_;
  }

 private:
  Picture picture_;
  std::once_flag isExported_;
  std::shared_ptr<lumora::ExportedFrame> frame_;
};

// Removes file, line and function in GStreamer's source from a message of the library.
std::string withoutPlace(const std::string& reason) {
  static const std::regex kPlace(R"( \([^ ]+\(\d+\): \w+ \(\): [^\n]*(?:\)$|\n))");
  std::smatch place;
  std::string line = reason;
  if (std::regex_search(reason, place, kPlace)) {
    const std::string rest = place.suffix();
    line = place.prefix().str() + (rest.empty() ? "" : " (" + rest);
  }
  return line;
}

}  // namespace

Camera::Camera(const CameraOptions& options) : options_(options) {}

Camera::~Camera() = default;

void Camera::failSource(const std::string& reason) {
  throw StationError(ExitCode::Source, "source failed: " + withoutPlace(reason));
}

void Camera::failSilentSource(const std::string& source) {
  throw StationError(ExitCode::Source, "source gives no pictures: " + source);
}

std::string Camera::mediaType(const std::string& path) {
  std::string bytes(4096, '\0');
  std::ifstream stream(path, std::ios::binary);
  stream.read(bytes.data(), static_cast<std::streamsize>(bytes.size()));
  g_autoptr(GstCaps) caps =
      gst_type_find_helper_for_data(nullptr, reinterpret_cast<const guint8*>(bytes.data()),
                                    static_cast<gsize>(stream.gcount()), nullptr);
  return caps != nullptr ? gst_structure_get_name(gst_caps_get_structure(caps, 0)) : "";
}

bool Camera::isDevice(const std::string& source) {
  std::error_code error;
  // /dev/videoN is a device even while unplugged.
  return std::filesystem::is_character_file(source, error) || source.rfind("/dev/video", 0) == 0;
}

void Camera::feedInto(const media_backend::GstVideoBackend& backend) {
  begin(std::make_unique<FrameFeed>(backend, options_), false);
}

void Camera::begin(std::unique_ptr<FrameFeed> feed, bool hasOwnMemory) {
  feed->begin(format_, hasOwnMemory);
  feed_ = std::move(feed);
}

std::unique_ptr<Camera> Camera::openFor(const media_backend::GstVideoBackend& backend,
                                        const CameraOptions& options) {
  auto feed = std::make_unique<FrameFeed>(backend, options);
  std::unique_ptr<Camera> camera;
  std::string reason;
  if (feed->isZeroCopy() && isDevice(options.source)) {
    camera = DriverCamera::open(options, reason);
    if (camera == nullptr && options.feed == Feed::ZeroCopy) {
      failSource(reason);
    }
  }
  const bool isOfDriver = camera != nullptr;
  if (!isOfDriver) {
    camera = open(options);
  }
  camera->begin(std::move(feed), isOfDriver);
  std::string& line = camera->format_.feed;
  if (isOfDriver) {
    line = "zero copy: buffers of " + options.source;
  } else if (!reason.empty()) {
    line += "; copied once, since " + withoutPlace(reason);
  }
  return camera;
}

std::unique_ptr<Camera> Camera::open(const CameraOptions& options) {
  std::error_code error;
  const std::filesystem::file_status status = std::filesystem::status(options.source, error);
  if (status.type() == std::filesystem::file_type::none) {
    failSource(error.message() + ": " + options.source);
  }
  if (isDevice(options.source)) {
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
