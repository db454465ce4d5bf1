#include "audio/Microphone.h"

#include <cstdio>
#include <optional>
#include <utility>

#include "base/Callback.h"
#include "base/Pipelines.h"
#include "base/StationError.h"

namespace station {
namespace {

constexpr const char* kTest = "audiotestsrc";
constexpr GstClockTime kOpenTimeout = 5 * GST_SECOND;
// A device ahead of the system's clock by more has times of another clock: the gap before its
// packets would have no end.
constexpr GstClockTime kMostAhead = GST_SECOND;

std::string describe(const MicrophoneName& name) {
  return name.element +
         " name=microphone ! audioconvert ! audioresample ! audio/x-raw,rate=48000,channels=1 ! "
         "queue max-size-time=1000000000 leaky=downstream ! opusenc frame-size=20 ! "
         "appsink name=packets sync=false emit-signals=true";
}

std::string packageOf(const std::string& element) {
  return element == "alsasrc" ? "gstreamer1.0-alsa" : "gstreamer1.0-pulseaudio";
}

}  // namespace

MicrophoneName MicrophoneName::parse(const std::string& text) {
  const std::size_t colon = text.find(':');
  const std::string kind = text.substr(0, colon);
  const std::string device = colon != std::string::npos ? text.substr(colon + 1) : "";
  if (kind == "test" && colon == std::string::npos) {
    return {kTest, ""};
  }
  if (kind == "alsa" || kind == "pulse") {
    return {kind + "src", device};
  }
  throw StationError(ExitCode::Usage,
                     "a microphone is alsa:DEVICE, pulse:NAME or test, not " + text);
}

Microphone::Microphone(const MicrophoneName& name) {
  g_autoptr(GstElementFactory) factory = gst_element_factory_find(name.element.c_str());
  if (factory == nullptr) {
    throw StationError(ExitCode::Source, "the microphone needs GStreamer's " + name.element +
                                             " (Debian: " + packageOf(name.element) + ")");
  }
  pipeline_ = buildPipeline(describe(name), "the microphone");
  const GstPtr<GstElement> source = findElement(pipeline_.get(), "microphone");
  if (!name.device.empty()) {
    g_object_set(source.get(), "device", name.device.c_str(), nullptr);
  }
  if (name.element == kTest) {
    g_object_set(source.get(), "is-live", TRUE, nullptr);
  } else {
    gst_util_set_object_arg(G_OBJECT(source.get()), "slave-method", "resample");
  }
  // The system's, which the times of packets are by.
  g_autoptr(GstClock) clock = gst_system_clock_obtain();
  gst_pipeline_use_clock(GST_PIPELINE(pipeline_.get()), clock);
  g_signal_connect(findElement(pipeline_.get(), "packets").get(), "new-sample",
                   G_CALLBACK(guarded<onSample>), this);
  waitUntilOpen(name.device);
}

void Microphone::waitUntilOpen(const std::string& device) {
  gst_element_set_state(pipeline_.get(), GST_STATE_PLAYING);
  const bool isOpen = gst_element_get_state(pipeline_.get(), nullptr, nullptr, kOpenTimeout) !=
                      GST_STATE_CHANGE_FAILURE;
  const GstPtr<GstBus> bus(gst_element_get_bus(pipeline_.get()));
  const std::optional<BusError> error = BusError::take(bus.get());
  if (error || !isOpen) {
    throw StationError(ExitCode::Source, "the microphone does not open" +
                                             (device.empty() ? "" : ": " + device) +
                                             (error ? ": " + error->message : ""));
  }
  gst_bus_set_sync_handler(bus.get(), guarded<onMessage>, this, nullptr);
}

GstFlowReturn Microphone::onSample(GstElement* sink, gpointer self) {
  g_autoptr(GstSample) sample = gst_app_sink_try_pull_sample(GST_APP_SINK(sink), 0);
  if (GstBuffer* const packet = sample != nullptr ? gst_sample_get_buffer(sample) : nullptr) {
    static_cast<Microphone*>(self)->encoded(packet);
  }
  return GST_FLOW_OK;
}

bool Microphone::isAhead(GstClockTime time) {
  const bool isAhead = time > gst_element_get_current_running_time(pipeline_.get()) + kMostAhead;
  if (isAhead && !std::exchange(wasAhead_, true)) {
    std::fputs("note: the microphone is ahead of the clock, its packets are dropped\n", stderr);
  }
  return isAhead;
}

void Microphone::encoded(GstBuffer* packet) {
  const GstClockTime time = GST_BUFFER_PTS(packet);
  if (isAhead(time)) {
    return;
  }
  media_backend::EncodedAudioFrame frame;
  frame.payload.resize(gst_buffer_get_size(packet));
  gst_buffer_extract(packet, 0, frame.payload.data(), frame.payload.size());
  // GStreamer's system clock and the steady clock are both CLOCK_MONOTONIC.
  const std::chrono::nanoseconds begin(gst_element_get_base_time(pipeline_.get()) + time);
  deliver(frame, std::chrono::steady_clock::time_point(begin));
}

GstBusSyncReply Microphone::onMessage(GstBus* /*bus*/, GstMessage* message, gpointer self) {
  if (GST_MESSAGE_TYPE(message) == GST_MESSAGE_ERROR) {
    static_cast<Microphone*>(self)->hasFailed_ = true;
    std::fprintf(stderr, "note: the microphone has failed, its track goes on without: %s\n",
                 BusError::parse(message).message.c_str());
  }
  gst_message_unref(message);
  return GST_BUS_DROP;
}

}  // namespace station
