#include <media_backend/V4l2FrameSource.h>

#include <cstdint>
#include <vector>

#include <media_backend/GstNv12Sample.h>

#include "Description.h"
#include "SourcePipeline.h"

namespace media_backend {
namespace {

// Frames are dropped wherever they could queue up, so that a slow caller gets no stale one.
std::string describeDevice(const SourcePipeline::Config& config) {
  const auto [numerator, denominator] = gst_source::fps_fraction(config.fps);
  Description text(360);
  text << "v4l2src name=simu_v4l_src do-timestamp=true io-mode=2 "
          "! queue max-size-buffers=2 leaky=downstream "
          "! videoconvert "
          "! videoscale "
          "! videorate drop-only=true "
          "! video/x-raw,format=NV12,width="
       << config.width << ",height=" << config.height << ",framerate=" << numerator << "/"
       << denominator << " "
       << "! appsink name=simu_v4l_sink emit-signals=false sync=false async=false "
          "max-buffers=1 drop=true";
  return text.take();
}

constexpr SourcePipeline::Traits kDeviceTraits = {
    "simu_v4l_src",
    "device",
    "simu_v4l_sink",
    static_cast<GstMessageType>(GST_MESSAGE_ERROR | GST_MESSAGE_WARNING),
    describeDevice,
    nullptr,
    "failed to create GStreamer pipeline",
    "GStreamer v4l2src not found",
    "GStreamer appsink not found",
    "failed to start GStreamer pipeline",
    "GStreamer pipeline failed during state change",
};

}  // namespace

struct [[gnu::visibility("hidden")]] V4l2FrameSource::Impl {
  SourcePipeline pipeline{kDeviceTraits};
  std::vector<std::uint8_t> scratch;

  std::shared_ptr<lumora::LumoraPicture> capture(
      const V4l2FrameSourceConfig& config, std::chrono::nanoseconds timeout, std::string& error);
};

std::shared_ptr<lumora::LumoraPicture> V4l2FrameSource::Impl::capture(
    const V4l2FrameSourceConfig& config, std::chrono::nanoseconds timeout, std::string& error) {
  error.clear();
  if (config.device.empty()) {
    error = "empty V4L device path";
    pipeline.teardown();
    return {};
  }
  if (!pipeline.run({config.device, config.width, config.height, config.fps, false}, error)) {
    return {};
  }
  g_autoptr(GstSample) sample = pipeline.pull(timeout);
  if (sample != nullptr) {
    return gst_source::picture_from_nv12_sample(sample, scratch, error);
  }
  if (pipeline.report(error) != GST_MESSAGE_UNKNOWN) {
    pipeline.teardown();
  }
  return {};
}

V4l2FrameSource::V4l2FrameSource() : impl_(std::make_unique<Impl>()) {}

V4l2FrameSource::~V4l2FrameSource() = default;

std::shared_ptr<lumora::LumoraPicture> V4l2FrameSource::capture(const V4l2FrameSourceConfig& config,
                                                                std::chrono::nanoseconds timeout,
                                                                std::string& error) {
  return impl_->pipeline.tearDownOnBadAlloc([&] { return impl_->capture(config, timeout, error); });
}

void V4l2FrameSource::stop() {
  impl_->pipeline.teardown();
}

}  // namespace media_backend
