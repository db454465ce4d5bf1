#include <media_backend/MediaFileFrameSource.h>

#include <cstdint>
#include <filesystem>
#include <vector>

#include <media_backend/GstNv12Sample.h>

#include "Description.h"
#include "PictureLimit.h"
#include "SourcePipeline.h"

namespace media_backend {
namespace {

// nvvidconv, if present, scales and converts in hardware.
const char* converter() {
  g_autoptr(GstElementFactory) nvvidconv = gst_element_factory_find("nvvidconv");
  return nvvidconv != nullptr ? "nvvidconv " : "videoconvert ! videoscale ";
}

std::string describeFile(const SourcePipeline::Config& config) {
  Description text(320);
  text << "filesrc name=simu_file_src "
          "! decodebin name=simu_file_decode "
          "! queue max-size-buffers=8 "
          "! "
       << converter() << "! video/x-raw,format=NV12,width=" << config.width
       << ",height=" << config.height << " "
       << "! appsink name=simu_file_sink emit-signals=false sync=false async=false "
          "max-buffers=2 drop=false";
  return text.take();
}

constexpr SourcePipeline::Traits kFileTraits = {
    "simu_file_src",
    "location",
    "simu_file_sink",
    static_cast<GstMessageType>(GST_MESSAGE_EOS | GST_MESSAGE_ERROR),
    describeFile,
    refuseHugePictures,
    "failed to create media file GStreamer pipeline",
    "GStreamer filesrc not found",
    "GStreamer appsink not found",
    "failed to start media file GStreamer pipeline",
    "media file GStreamer pipeline failed during state change",
};

}  // namespace

struct [[gnu::visibility("hidden")]] MediaFileFrameSource::Impl {
  SourcePipeline pipeline{kFileTraits};
  std::vector<std::uint8_t> scratch;

  std::shared_ptr<lumora::LumoraPicture> capture(const MediaFileFrameSourceConfig& config,
                                                 std::chrono::nanoseconds timeout,
                                                 std::string& error);
};

std::shared_ptr<lumora::LumoraPicture> MediaFileFrameSource::Impl::capture(
    const MediaFileFrameSourceConfig& config, std::chrono::nanoseconds timeout,
    std::string& error) {
  error.clear();
  if (config.path.empty()) {
    error = "empty media file path";
    pipeline.teardown();
    return {};
  }
  if (!std::filesystem::exists(std::filesystem::status(config.path))) {
    error = "media file does not exist: " + config.path;
    pipeline.teardown();
    return {};
  }
  if (!pipeline.run({config.path, config.width, config.height, config.fps, config.loop}, error)) {
    return {};
  }

  for (int rebuilds = 2; rebuilds > 0; --rebuilds) {
    g_autoptr(GstSample) sample = pipeline.pull(timeout);
    if (sample != nullptr) {
      return gst_source::picture_from_nv12_sample(sample, scratch, error);
    }
    const GstMessageType message = pipeline.report(error);
    if (message == GST_MESSAGE_ERROR) {
      pipeline.teardown();
      return {};
    }
    const bool ended = message == GST_MESSAGE_EOS || pipeline.isAtEnd();
    if (!ended || !config.loop || !pipeline.restart(error)) {
      return {};
    }
  }
  return {};
}

MediaFileFrameSource::MediaFileFrameSource() : impl_(std::make_unique<Impl>()) {}

MediaFileFrameSource::~MediaFileFrameSource() = default;

std::shared_ptr<lumora::LumoraPicture> MediaFileFrameSource::capture(
    const MediaFileFrameSourceConfig& config, std::chrono::nanoseconds timeout,
    std::string& error) {
  return impl_->pipeline.tearDownOnBadAlloc([&] { return impl_->capture(config, timeout, error); });
}

void MediaFileFrameSource::stop() {
  impl_->pipeline.teardown();
}

}  // namespace media_backend
