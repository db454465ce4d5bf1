#include <media_backend/MediaFileFrameSource.h>

#include <cstdint>
#include <filesystem>
#include <vector>

#include <gst/allocators/gstdmabuf.h>
#include <media_backend/GstNv12Sample.h>

#include "Description.h"
#include "SourcePipeline.h"

namespace media_backend {
namespace {

// A small file can declare any number of pixels, and GLib aborts the process if allocating them
// fails.
constexpr std::int64_t kMaxPixels = std::int64_t{8192} * 8192;

// Whether `caps` declare pictures of more than kMaxPixels.
bool areHuge(const GstCaps* caps, int& width, int& height) {
  const GstStructure* const format = caps != nullptr ? gst_caps_get_structure(caps, 0) : nullptr;
  return format != nullptr && gst_structure_get_int(format, "width", &width) &&
         gst_structure_get_int(format, "height", &height) &&
         std::int64_t{width} * height > kMaxPixels;
}

void postTooLarge(GstElement* element, int width, int height) {
  g_autoptr(GError) error = g_error_new(GST_STREAM_ERROR, GST_STREAM_ERROR_FORMAT,
                                        "pictures of %d x %d are too large", width, height);
  gst_element_post_message(element, gst_message_new_error(GST_OBJECT(element), error, nullptr));
}

// Refuses before a decoder is plugged if the demuxer's caps give the size: some decoders allocate
// before they set their caps.
gboolean onContinue(GstElement* decodebin, GstPad* /*pad*/, GstCaps* caps, gpointer /*unused*/) {
  int width = 0;
  int height = 0;
  if (!areHuge(caps, width, height)) {
    return TRUE;
  }
  postTooLarge(decodebin, width, height);
  return FALSE;
}

// Drops the caps and answers the ALLOCATION query with an allocator that always fails: some
// decoders allocate even after their caps were refused, or before they are linked.
GstPadProbeReturn refuseHuge(GstPad* pad, GstPadProbeInfo* info, gpointer /*unused*/) {
  GstCaps* caps = nullptr;
  int width = 0;
  int height = 0;
  if ((GST_PAD_PROBE_INFO_TYPE(info) & GST_PAD_PROBE_TYPE_EVENT_DOWNSTREAM) != 0) {
    GstEvent* const event = GST_PAD_PROBE_INFO_EVENT(info);
    if (GST_EVENT_TYPE(event) == GST_EVENT_CAPS) {
      gst_event_parse_caps(event, &caps);
    }
    if (!areHuge(caps, width, height)) {
      return GST_PAD_PROBE_OK;
    }
    const GstPtr<GstElement> decoder(gst_pad_get_parent_element(pad));
    postTooLarge(decoder.get(), width, height);
    return GST_PAD_PROBE_DROP;
  }
  GstQuery* const query = GST_PAD_PROBE_INFO_QUERY(info);
  if (GST_QUERY_TYPE(query) == GST_QUERY_ALLOCATION) {
    gst_query_parse_allocation(query, &caps, nullptr);
  }
  if (!areHuge(caps, width, height)) {
    return GST_PAD_PROBE_OK;
  }
  const GstPtr<GstAllocator> failing(gst_dmabuf_allocator_new());  // fails without a descriptor
  gst_query_add_allocation_param(query, failing.get(), nullptr);
  return GST_PAD_PROBE_HANDLED;
}

void onElement(GstBin* /*decodebin*/, GstElement* element, gpointer /*unused*/) {
  const GstPtr<GstPad> pad(gst_element_get_static_pad(element, "src"));
  if (pad != nullptr) {
    gst_pad_add_probe(pad.get(),
                      static_cast<GstPadProbeType>(GST_PAD_PROBE_TYPE_EVENT_DOWNSTREAM |
                                                   GST_PAD_PROBE_TYPE_QUERY_DOWNSTREAM),
                      refuseHuge, nullptr, nullptr);
  }
}

void refuseHugePictures(GstElement* pipeline) {
  const GstPtr<GstElement> decodebin(gst_bin_get_by_name(GST_BIN(pipeline), "simu_file_decode"));
  if (decodebin != nullptr) {
    g_signal_connect(decodebin.get(), "autoplug-continue", G_CALLBACK(onContinue), nullptr);
    g_signal_connect(decodebin.get(), "element-added", G_CALLBACK(onElement), nullptr);
  }
}

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
