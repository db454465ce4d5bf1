#include "http/Stream.h"

#include <utility>

#include "base/Pipelines.h"

namespace station {
namespace {

using media_backend::GstVideoBackend;
using Codec = GstVideoBackend::Codec;

// An encoder outlasts its last viewer by so much: pages reload, players reconnect.
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

std::string describe(const GstVideoBackend& backend, const GstVideoBackend::EncoderConfig& config) {
  const std::string encoder = backend.httpEncoderChain(config);
  if (encoder.empty()) {
    throw StationError(ExitCode::CodecNotUsable, std::string("codec not usable for HTTP on ") +
                                                     backend.name() + ": " +
                                                     GstVideoBackend::codecName(config.codec));
  }
  return CameraFeed::kElement + backend.httpUploadChain(nullptr) + encoder;
}

// Viewers join at any key frame, so each has to bring its parameter sets along.
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

HttpStream::HttpStream(const GstVideoBackend& backend, LiveCamera& camera,
                       const GstVideoBackend::EncoderConfig& config,
                       std::function<void()> onPicture)
    : backend_(backend),
      camera_(camera),
      codec_(config.codec),
      description_(describe(backend, config)),
      onPicture_(std::move(onPicture)),
      ring_(config.codec == Codec::Mjpeg) {}

std::string HttpStream::path() const {
  return formatOf(codec_).path;
}

const char* HttpStream::contentType() const {
  return formatOf(codec_).contentType;
}

void HttpStream::addViewer() {
  if (pipeline_ == nullptr) {
    start();
  }
  ++viewers_;
}

void HttpStream::removeViewer() {
  --viewers_;
  lastWatched_ = Clock::now();
}

void HttpStream::start() {
  PipelinePtr pipeline = buildPipeline(description_, "the encoder");
  repeatParameterSets(pipeline.get());
  g_signal_connect(findElement(pipeline.get(), "sink").get(), "new-sample", G_CALLBACK(onSample),
                   this);
  feed_ = std::make_unique<CameraFeed>(backend_, camera_, pipeline.get());
  pipeline_ = std::move(pipeline);
  gst_element_set_state(pipeline_.get(), GST_STATE_PLAYING);  // a failure shows on the bus
  measuredAt_ = Clock::now();
  measured_ = counts();
}

void HttpStream::stop() {
  feed_.reset();
  pipeline_.reset();
  ring_.clear();
  rates_ = {};
}

GstFlowReturn HttpStream::onSample(GstElement* sink, gpointer self) {
  auto* const stream = static_cast<HttpStream*>(self);
  g_autoptr(GstSample) sample = gst_app_sink_try_pull_sample(GST_APP_SINK(sink), 0);
  GstBuffer* const buffer = sample != nullptr ? gst_sample_get_buffer(sample) : nullptr;
  GstMapInfo map;
  if (buffer == nullptr || !gst_buffer_map(buffer, &map, GST_MAP_READ)) {
    return GST_FLOW_OK;
  }
  // Copied: an encoder may have few buffers, which no viewer shall keep from it.
  const bool kept = stream->ring_.add(map.data, map.size,
                                      !GST_BUFFER_FLAG_IS_SET(buffer, GST_BUFFER_FLAG_DELTA_UNIT));
  ++stream->pictures_;
  stream->bytes_ += map.size;
  stream->oversized_ += kept ? 0 : 1;
  gst_buffer_unmap(buffer, &map);
  stream->onPicture_();
  return GST_FLOW_OK;
}

void HttpStream::tick() {
  if (pipeline_ == nullptr) {
    return;
  }
  checkBus();
  if (viewers_ == 0 && Clock::now() - lastWatched_ > kLinger) {
    stop();
  } else {
    measure();
  }
}

void HttpStream::checkBus() {
  const GstPtr<GstBus> bus(gst_element_get_bus(pipeline_.get()));
  g_autoptr(GstMessage) message = gst_bus_pop_filtered(bus.get(), GST_MESSAGE_ERROR);
  if (message != nullptr) {
    throw pipelineError(message);
  }
}

void HttpStream::measure() {
  const Clock::time_point now = Clock::now();
  const double seconds = std::chrono::duration<double>(now - measuredAt_).count();
  if (now - measuredAt_ < kMeasure) {
    return;
  }
  const Counts current = counts();
  rates_ = {static_cast<double>(current.pictures - measured_.pictures) / seconds,
            static_cast<double>(current.bytes - measured_.bytes) * 8 / seconds};
  measured_ = current;
  measuredAt_ = now;
}

}  // namespace station
