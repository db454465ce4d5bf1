#include "camera/DriverCamera.h"

#include <cstdio>
#include <optional>
#include <utility>

#include <gst/allocators/gstdmabuf.h>
#include <gst/video/video.h>
#include <lumora/LumoraPicture.h>
#include <media_backend/GstNv12Sample.h>

#include "base/Callback.h"
#include "camera/MediaFormat.h"

namespace station {
namespace {

using media_backend::SourcePipeline;

constexpr const char* kSource = "simu_v4l_src";
constexpr std::chrono::milliseconds kBufferPoll{50};

std::string describeDriver(const SourcePipeline::Config& config) {
  const auto [numerator, denominator] = media_backend::gst_source::fps_fraction(config.fps);
  return std::string("v4l2src name=") + kSource +
         " io-mode=dmabuf ! video/x-raw,format=NV12,interlace-mode=progressive,width=" +
         std::to_string(config.width) + ",height=" + std::to_string(config.height) +
         " ! videorate drop-only=true ! video/x-raw,framerate=" + std::to_string(numerator) + "/" +
         std::to_string(denominator) +
         " ! appsink name=sink sync=false async=false max-buffers=1 drop=true";
}

// Answers for the elements behind: without video meta, the source copies padded rows.
GstPadProbeReturn answerAllocation(GstPad* /*pad*/, GstPadProbeInfo* info, gpointer /*data*/) {
  GstQuery* const query = GST_PAD_PROBE_INFO_QUERY(info);
  if (GST_QUERY_TYPE(query) != GST_QUERY_ALLOCATION) {
    return GST_PAD_PROBE_OK;
  }
  gst_query_add_allocation_meta(query, GST_VIDEO_META_API_TYPE, nullptr);
  return GST_PAD_PROBE_HANDLED;
}

void prepareDriver(GstElement* pipeline) {
  g_autoptr(GstElement) source = gst_bin_get_by_name(GST_BIN(pipeline), kSource);
  g_autoptr(GstPad) pad = gst_element_get_static_pad(source, "src");
  gst_pad_add_probe(pad, GST_PAD_PROBE_TYPE_QUERY_DOWNSTREAM, guarded<answerAllocation>, nullptr,
                    nullptr);
}

constexpr SourcePipeline::Traits kDriver = {
    kSource, "device", "sink", GST_MESSAGE_ERROR, describeDriver, prepareDriver, "", "",
    "",      "",       ""};

// The driver's buffer of a sample; empty if it is not one dma-buf.
std::optional<lumora::FrameExportHandle> handleOf(GstSample* sample) {
  GstBuffer* const buffer = gst_sample_get_buffer(sample);
  GstVideoInfo info;
  if (gst_buffer_n_memory(buffer) != 1 ||
      gst_is_dmabuf_memory(gst_buffer_peek_memory(buffer, 0)) == FALSE ||
      !gst_video_info_from_caps(&info, gst_sample_get_caps(sample))) {
    return std::nullopt;
  }
  GstMemory* const memory = gst_buffer_peek_memory(buffer, 0);
  const GstVideoMeta* const meta = gst_buffer_get_video_meta(buffer);
  gsize start = 0;
  gsize size = 0;
  gst_memory_get_sizes(memory, &start, &size);
  lumora::FrameExportHandle handle;
  handle.valid = handle.isDmaBuf = true;
  handle.fd = gst_dmabuf_memory_get_fd(memory);
  handle.size = size;
  handle.width = static_cast<std::uint32_t>(info.width);
  handle.height = static_cast<std::uint32_t>(info.height);
  handle.planeCount = 2;
  for (unsigned int i = 0; i < 2; ++i) {
    const gsize offset = meta != nullptr ? meta->offset[i] : info.offset[i];
    const gint stride = meta != nullptr ? meta->stride[i] : info.stride[i];
    handle.planes[i] = {start + offset, static_cast<std::uint32_t>(stride), handle.width,
                        handle.height >> i};
  }
  return handle;
}

}  // namespace

DriverCamera::DriverCamera(const CameraOptions& options) : Camera(options), pipeline_(kDriver) {
  const auto orDefault = [](unsigned int value, unsigned int otherwise) {
    return value != 0 ? value : otherwise;
  };
  format_.width = orDefault(options.width, format_.width);
  format_.height = orDefault(options.height, format_.height);
  format_.rate.numerator = static_cast<int>(orDefault(options.fps, 30));
}

std::unique_ptr<DriverCamera> DriverCamera::open(const CameraOptions& options,
                                                 std::string& reason) {
  std::unique_ptr<DriverCamera> camera(new DriverCamera(options));
  return camera->start(reason) ? std::move(camera) : nullptr;
}

// Examines the first frame: what a driver gives is not known before.
bool DriverCamera::start(std::string& reason) {
  std::string error;
  first_ = pull(error);
  if (first_ == nullptr) {
    reason = options_.source + " gives no NV12 of " + std::to_string(format_.width) + " x " +
             std::to_string(format_.height) + " in dma-bufs" +
             (error.empty() ? "" : " (" + error + ")");
    return false;
  }
  if (!handleOf(first_.get())) {
    reason = options_.source + " does not give each frame in one dma-buf";
    return false;
  }
  format_.colorimetry = colorimetryOf(first_.get(), format_.width, format_.height);
  return true;
}

// Null with a text in `error` after a failure, without one after a silence of five seconds.
std::shared_ptr<GstSample> DriverCamera::pull(std::string& error) {
  const auto deadline = std::chrono::steady_clock::now() + kTimeout;
  bool isRunning = pipeline_.run(
      {options_.source, format_.width, format_.height, format_.rate.perSecond(), false}, error);
  while (isRunning && std::chrono::steady_clock::now() < deadline) {
    if (GstSample* const sample = pipeline_.pull(kBufferPoll)) {
      return {sample, gst_sample_unref};
    }
    isRunning = pipeline_.report(error) != GST_MESSAGE_ERROR;
  }
  pipeline_.teardown();
  return nullptr;
}

std::shared_ptr<lumora::LumoraPicture> DriverCamera::next() {
  std::string error;
  const std::shared_ptr<GstSample> sample =
      first_ != nullptr ? std::exchange(first_, nullptr) : pull(error);
  if (sample == nullptr) {
    if (error.empty()) {
      failSilentSource(options_.source);
    }
    failSource(error);
  }
  const std::optional<lumora::FrameExportHandle> handle = handleOf(sample.get());
  return handle ? lumora::LumoraPicture::fromExportedFrame(
                      std::make_shared<lumora::ExportedFrame>(*handle, sample))
                : copyOf(sample.get());
}

std::shared_ptr<lumora::LumoraPicture> DriverCamera::copyOf(GstSample* sample) {
  if (!std::exchange(hasCopied_, true)) {
    std::fprintf(stderr, "note: all buffers of %s are in use, some frames are copied\n",
                 options_.source.c_str());
  }
  std::string error;
  auto picture = media_backend::gst_source::picture_from_nv12_sample(sample, scratch_, error);
  if (picture == nullptr) {
    failSource(error);
  }
  return picture;
}

void DriverCamera::suspend() {
  first_.reset();
  pipeline_.teardown();
}

}  // namespace station
