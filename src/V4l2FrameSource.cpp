#include <media_backend/V4l2FrameSource.h>

#include <algorithm>
#include <cmath>
#include <new>
#include <optional>
#include <vector>

#include <media_backend/GstNv12Sample.h>

#include "Description.h"
#include "SourcePipeline.h"

namespace media_backend {
namespace {

constexpr SourcePipeline::Traits kTraits = {
    "simu_v4l_src",
    "device",
    "simu_v4l_sink",
    static_cast<GstMessageType>(GST_MESSAGE_ERROR | GST_MESSAGE_WARNING),
    nullptr,
    "failed to create GStreamer pipeline",
    "GStreamer v4l2src not found",
    "GStreamer appsink not found",
    "failed to start GStreamer pipeline",
    "GStreamer pipeline failed during state change",
};

V4l2FrameSourceConfig normalised(const V4l2FrameSourceConfig& config) {
  V4l2FrameSourceConfig result = config;
  result.width = gst_source::even_dimension(config.width);
  result.height = gst_source::even_dimension(config.height);
  result.fps = std::clamp(config.fps, 0.1, 240.0);
  return result;
}

bool isSame(const V4l2FrameSourceConfig& a, const V4l2FrameSourceConfig& b) {
  return a.device == b.device && a.width == b.width && a.height == b.height &&
         std::abs(a.fps - b.fps) < 1e-6;
}

// Frames are dropped at every place where they could pile up: a slow caller gets no stale one.
std::string describe(const V4l2FrameSourceConfig& config) {
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

}  // namespace

struct [[gnu::visibility("hidden")]] V4l2FrameSource::Impl {
  SourcePipeline pipeline{kTraits};
  std::optional<V4l2FrameSourceConfig> active;  // normalised; set while the pipeline runs
  std::vector<std::uint8_t> scratch;

  std::shared_ptr<lumora::LumoraPicture> capture(
      const V4l2FrameSourceConfig& config, std::chrono::nanoseconds timeout, std::string& error);
  bool start(const V4l2FrameSourceConfig& config, std::string& error);
  void teardown();
};

bool V4l2FrameSource::Impl::start(const V4l2FrameSourceConfig& config, std::string& error) {
  gst_source::ensure_initialized();
  if (!pipeline.start(describe(config), config.device, error)) {
    return false;
  }
  active = config;
  return true;
}

void V4l2FrameSource::Impl::teardown() {
  pipeline.teardown();
  active.reset();
}

std::shared_ptr<lumora::LumoraPicture> V4l2FrameSource::Impl::capture(
    const V4l2FrameSourceConfig& config, std::chrono::nanoseconds timeout, std::string& error) {
  error.clear();
  const V4l2FrameSourceConfig wanted = normalised(config);
  if (wanted.device.empty()) {
    error = "empty V4L device path";
    teardown();
    return {};
  }
  if (!active || !isSame(wanted, *active)) {
    teardown();
    if (!start(wanted, error)) {
      teardown();
      return {};
    }
  }
  g_autoptr(GstSample) sample = pipeline.pull(timeout);
  if (sample != nullptr) {
    return gst_source::picture_from_nv12_sample(sample, scratch, error);
  }
  if (pipeline.report(error) != GST_MESSAGE_UNKNOWN) {
    teardown();
  }
  return {};
}

V4l2FrameSource::V4l2FrameSource() : impl_(std::make_unique<Impl>()) {}

V4l2FrameSource::~V4l2FrameSource() = default;

std::shared_ptr<lumora::LumoraPicture> V4l2FrameSource::capture(const V4l2FrameSourceConfig& config,
                                                                std::chrono::nanoseconds timeout,
                                                                std::string& error) {
  try {
    return impl_->capture(config, timeout, error);
  } catch (const std::bad_alloc&) {
    // What the pipeline reported may be lost with it, and nobody would end the pipeline then.
    impl_->teardown();
    throw;
  }
}

void V4l2FrameSource::stop() {
  impl_->teardown();
}

}  // namespace media_backend
