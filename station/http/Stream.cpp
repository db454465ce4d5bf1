#include "http/Stream.h"

#include <utility>

#include "base/Callback.h"
#include "base/Handles.h"
#include "base/Pipelines.h"

namespace station {
namespace {

using media_backend::GstVideoBackend;
using Codec = GstVideoBackend::Codec;

// From the last reader to the encoder's stop: pages reload, players reconnect.
constexpr std::chrono::seconds kLinger{3};
constexpr std::chrono::seconds kMeasure{2};

struct Format {
  Codec codec;
  const char* path;
  const char* contentType;
};

constexpr Format kFormats[] = {
    {Codec::Mjpeg, "/stream.mjpeg", "multipart/x-mixed-replace; boundary=picture"},
    {Codec::H264, "/stream.h264", "video/h264"},
    {Codec::H265, "/stream.h265", "video/h265"},
    {Codec::Av1, "/stream.obu", "video/av1"},
};

const Format& formatOf(Codec codec) {
  for (const Format& format : kFormats) {
    if (format.codec == codec) {
      return format;
    }
  }
  throw StationError(ExitCode::Internal, "a codec without a format");
}

// Readers start at any key frame, so each has to carry its parameter sets.
void repeatParameterSets(GstElement* bin) {
  g_autoptr(GstIterator) elements = gst_bin_iterate_elements(GST_BIN(bin));
  gst_iterator_foreach(
      elements,
      [](const GValue* value, gpointer /*unused*/) {
        GObject* const element = G_OBJECT(g_value_get_object(value));
        if (g_object_class_find_property(G_OBJECT_GET_CLASS(element), "config-interval") !=
            nullptr) {
          g_object_set(element, "config-interval", -1, nullptr);
        }
      },
      nullptr);
}

}  // namespace

HttpStream::HttpStream(const GstVideoBackend& backend, LiveCamera& camera, LiveAudio* audio,
                       const GstVideoBackend::EncoderConfig& config,
                       std::function<void()> onAccessUnit, OnFailure onFailure)
    : backend_(backend),
      camera_(camera),
      audio_(audio),
      codec_(config.codec),
      description_(requireDescription(backend, Use::Http,
                                      {config, 0, false, false, 0, camera.format().colorimetry})),
      onAccessUnit_(std::move(onAccessUnit)),
      onFailure_(std::move(onFailure)),
      buffer_(config.codec == Codec::Mjpeg) {}

std::string HttpStream::path() const {
  return formatOf(codec_).path;
}

const char* HttpStream::contentType() const {
  return formatOf(codec_).contentType;
}

std::string HttpStream::mp4Path() const {
  return Mp4Muxer::supports(codec_) ? "/stream.mp4" : "";
}

std::shared_ptr<const Mp4Muxer> HttpStream::mp4() {
  const std::lock_guard lock(muxerMutex_);
  if (muxer_ == nullptr) {
    muxer_ = std::make_shared<Mp4Muxer>(codec_,
                                        audio_ != nullptr && audio_->isGapless() ? audio_ : nullptr,
                                        onAccessUnit_, onFailure_);
  }
  return muxer_;
}

std::shared_ptr<Mp4Muxer> HttpStream::muxer() const {
  const std::lock_guard lock(muxerMutex_);
  return muxer_;
}

std::optional<double> HttpStream::mp4Time() const {
  const std::shared_ptr<const Mp4Muxer> mp4 = muxer();
  const std::optional<GstClockTime> origin = mp4 != nullptr ? mp4->origin() : std::nullopt;
  if (!origin) {
    return std::nullopt;
  }
  const auto now = static_cast<GstClockTime>(g_get_monotonic_time()) * GST_USECOND;
  return static_cast<double>(GST_CLOCK_DIFF(*origin, now)) / GST_SECOND;
}

void HttpStream::addReader() {
  lingering_.reset();
  if (pipeline_ == nullptr) {
    start();
  } else {
    feed_->requestKeyPicture();
  }
  ++readers_;
}

void HttpStream::removeReader() {
  if (--readers_ == 0) {
    lingering_.emplace(kLinger, [this] {
      stop();
      return false;
    });
  }
}

void HttpStream::start() {
  PipelinePtr pipeline = buildPipeline(description_, "the encoder");
  repeatParameterSets(pipeline.get());
  g_signal_connect(findElement(pipeline.get(), "sink").get(), "new-sample",
                   G_CALLBACK(guarded<onSample>), this);
  feed_ = std::make_unique<CameraFeed>(backend_, camera_, pipeline.get(), "sink");
  pipeline_ = std::move(pipeline);
  const GstPtr<GstBus> bus(gst_element_get_bus(pipeline_.get()));
  gst_bus_add_watch(bus.get(), guarded<onMessage>, this);
  gst_element_set_state(pipeline_.get(), GST_STATE_PLAYING);  // the bus reports a failure
  measuredAt_ = Clock::now();
  measured_ = counts();
  measuring_.emplace(kMeasure, [this] {
    measure();
    return true;
  });
}

void HttpStream::stop() {
  if (pipeline_ == nullptr) {
    return;
  }
  const GstPtr<GstBus> bus(gst_element_get_bus(pipeline_.get()));
  gst_bus_remove_watch(bus.get());
  feed_.reset();
  pipeline_.reset();
  {
    const std::lock_guard lock(muxerMutex_);
    muxer_.reset();
  }
  buffer_.clear();
  measuring_.reset();
  rates_ = {};
}

gboolean HttpStream::onMessage(GstBus* /*bus*/, GstMessage* message, gpointer self) {
  if (GST_MESSAGE_TYPE(message) == GST_MESSAGE_ERROR) {
    static_cast<HttpStream*>(self)->onFailure_(BusError::parse(message).as());
  }
  return G_SOURCE_CONTINUE;
}

GstFlowReturn HttpStream::onSample(GstElement* sink, gpointer self) {
  auto* const stream = static_cast<HttpStream*>(self);
  g_autoptr(GstSample) sample = gst_app_sink_try_pull_sample(GST_APP_SINK(sink), 0);
  GstBuffer* const buffer = sample != nullptr ? gst_sample_get_buffer(sample) : nullptr;
  if (buffer == nullptr) {
    return GST_FLOW_OK;
  }
  const MappedBuffer accessUnit(buffer);
  if (!accessUnit) {
    return GST_FLOW_OK;
  }
  // Copied, as readers must not exhaust the encoder's buffer pool.
  const bool kept =
      stream->buffer_.add(accessUnit.data(), accessUnit.size(),
                          !GST_BUFFER_FLAG_IS_SET(buffer, GST_BUFFER_FLAG_DELTA_UNIT));
  ++stream->accessUnits_;
  stream->bytes_ += accessUnit.size();
  stream->oversized_ += kept ? 0 : 1;
  if (const std::shared_ptr<Mp4Muxer> muxer = stream->muxer()) {
    muxer->push(sample, gst_element_get_base_time(sink));
  }
  stream->onAccessUnit_();
  return GST_FLOW_OK;
}

void HttpStream::measure() {
  const Clock::time_point now = Clock::now();
  const double seconds = std::chrono::duration<double>(now - measuredAt_).count();
  const Counts current = counts();
  rates_ = {static_cast<double>(current.accessUnits - measured_.accessUnits) / seconds,
            static_cast<double>(current.bytes - measured_.bytes) * 8 / seconds};
  measured_ = current;
  measuredAt_ = now;
}

}  // namespace station
