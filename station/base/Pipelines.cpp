#include "base/Pipelines.h"

#include <algorithm>
#include <cstring>

#include "base/Board.h"

namespace station {
namespace {

using media_backend::GstVideoBackend;

// An encoder that is late misses frames; it never blocks the camera.
constexpr const char* kAppSource =
    "appsrc name=camera is-live=true format=time do-timestamp=true max-buffers=2 "
    "leaky-type=downstream ";

// JPEG encoders take samples as they are. videoconvert is exact by way of 16 bits of RGB only.
std::string upload(const GstVideoBackend& backend, const DescriptionSettings& settings) {
  if (settings.encoder.codec != GstVideoBackend::Codec::Mjpeg) {
    return backend.httpUploadChain(nullptr);
  }
  const std::string chain = backend.httpUploadChain(kJpegColorimetry);
  const bool converts = chain.rfind("! video/x-raw", 0) != 0;
  return converts || settings.colorimetry == kJpegColorimetry
             ? chain
             : std::string("! videoconvert ! ") + kExactRgb + " ! videoconvert " + chain;
}

// Names with commas between them.
std::string usableCodecs(const GstVideoBackend& backend, Use use, DescriptionSettings settings) {
  std::string names;
  for (const GstVideoBackend::Codec codec : kCodecs) {
    settings.encoder.codec = codec;
    if (!describe(backend, use, settings).empty()) {
      names += (names.empty() ? "" : ", ") + std::string(GstVideoBackend::codecName(codec));
    }
  }
  return names.empty() ? "none" : names;
}

}  // namespace

const char* displayName(Use use) {
  switch (use) {
    case Use::Record:
      return "recording";
    case Use::Rtsp:
      return "RTSP";
    default:
      return "HTTP";
  }
}

const char* nameOf(Use use) {
  return use == Use::Record ? "record" : use == Use::Rtsp ? "rtsp" : "http";
}

std::string describe(const GstVideoBackend& backend, Use use, const DescriptionSettings& settings) {
  const GstVideoBackend::EncoderConfig& encoder = settings.encoder;
  if (use == Use::Record) {
    return backend.recorderPipeline(encoder, settings.segmentSeconds, settings.klv, settings.audio);
  }
  const bool rtsp = use == Use::Rtsp;
  const std::string chain = rtsp ? backend.transportEncoderChain(encoder, kConfigInterval)
                                 : backend.httpEncoderChain(encoder);
  if (chain.empty()) {
    return {};
  }
  return rtsp ? kAppSource + backend.inputConversionChain(nullptr) + chain +
                    backend.rtspPayloaderChain(encoder.codec, settings.mtu)
              : kAppSource + upload(backend, settings) + chain;
}

std::string requireDescription(const GstVideoBackend& backend, Use use,
                               const DescriptionSettings& settings) {
  std::string description = describe(backend, use, settings);
  if (description.empty()) {
    throw StationError(ExitCode::CodecNotUsable,
                       std::string("codec not usable for ") + displayName(use) + " on " +
                           backend.name() + ": " +
                           GstVideoBackend::codecName(settings.encoder.codec) +
                           "; usable: " + usableCodecs(backend, use, settings));
  }
  return description;
}

PipelinePtr buildPipeline(const std::string& description, const std::string& what) {
  g_autoptr(GError) error = nullptr;
  GstElement* const parsed = gst_parse_launch(description.c_str(), &error);
  PipelinePtr pipeline(parsed != nullptr ? GST_ELEMENT(gst_object_ref_sink(parsed)) : nullptr);
  if (error != nullptr || pipeline == nullptr) {
    throw StationError(ExitCode::Pipeline, "cannot build " + what + ": " +
                                               (error != nullptr ? error->message : "no pipeline"));
  }
  return pipeline;
}

GstPtr<GstElement> findElement(GstElement* bin, const char* name) {
  GstPtr<GstElement> element(gst_bin_get_by_name(GST_BIN(bin), name));
  if (element == nullptr) {
    throw StationError(ExitCode::Pipeline,
                       std::string("the pipeline has no element \"") + name + "\"");
  }
  return element;
}

bool isPlaying(GstElement* element) {
  GstState state = GST_STATE_NULL;
  gst_element_get_state(element, &state, nullptr, 0);
  return state == GST_STATE_PLAYING;
}

BusError BusError::parse(GstMessage* message) {
  g_autoptr(GError) error = nullptr;
  g_autofree gchar* debug = nullptr;
  gst_message_parse_error(message, &error, &debug);
  // The first line of the debug text is file, line and function.
  const char* const newline = debug != nullptr ? std::strchr(debug, '\n') : nullptr;
  std::string detail = newline != nullptr ? newline + 1 : "";
  std::replace(detail.begin(), detail.end(), '\n', ' ');
  return {error->domain, error->code, GST_OBJECT_NAME(GST_MESSAGE_SRC(message)), error->message,
          detail};
}

std::optional<BusError> BusError::take(GstBus* bus, GstClockTime timeout) {
  g_autoptr(GstMessage) message = gst_bus_timed_pop_filtered(bus, timeout, GST_MESSAGE_ERROR);
  return message != nullptr ? std::optional(parse(message)) : std::nullopt;
}

StationError BusError::as(ExitCode exitCode) const {
  return {exitCode, "pipeline error from " + element + ": " + message +
                        (detail.empty() ? "" : " (" + detail + ")")};
}

}  // namespace station
