#include "audio/Microphone.h"

#include <cstdio>
#include <cstdlib>
#include <utility>

#include "base/Callback.h"
#include "base/Pipelines.h"
#include "base/StationError.h"

namespace station {
namespace {

constexpr const char* kTest = "audiotestsrc";
constexpr GstClockTime kOpenTimeout = 5 * GST_SECOND;
// Longer than a sound card's buffer and the encoder take.
constexpr std::chrono::milliseconds kLastPackets{250};
// Less than half a packet: the clocks of the sound card and the system differ.
constexpr std::int64_t kJitterNs = 9'000'000;
// A device ahead of the system's clock by more has times of another clock: the gap before its
// packets would have no end.
constexpr std::int64_t kMostAheadNs = 1'000'000'000;

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

Microphone::Microphone(const MicrophoneName& name, AudioTrack& track) : track_(track) {
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
  // The system's, as the track's times are by it.
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

void Microphone::start(std::chrono::steady_clock::time_point time) {
  const std::lock_guard lock(mutex_);
  // GStreamer's system clock and the steady clock are both CLOCK_MONOTONIC.
  start_ = std::chrono::nanoseconds(time.time_since_epoch()).count() -
           static_cast<std::int64_t>(gst_element_get_base_time(pipeline_.get()));
  delivers_ = true;
}

void Microphone::stopAt(std::chrono::nanoseconds end) {
  std::unique_lock lock(mutex_);
  delivered_.wait_for(lock, kLastPackets, [&] { return expected_ >= end.count(); });
  delivers_ = false;
}

GstFlowReturn Microphone::onSample(GstElement* sink, gpointer self) {
  g_autoptr(GstSample) sample = gst_app_sink_try_pull_sample(GST_APP_SINK(sink), 0);
  if (GstBuffer* const packet = sample != nullptr ? gst_sample_get_buffer(sample) : nullptr) {
    static_cast<Microphone*>(self)->deliver(packet);
  }
  return GST_FLOW_OK;
}

bool Microphone::isAhead(GstClockTime time) {
  const bool isAhead = time > gst_element_get_current_running_time(pipeline_.get()) + kMostAheadNs;
  if (isAhead && !std::exchange(wasAhead_, true)) {
    std::fputs("note: the microphone is ahead of the clock, its packets are dropped\n", stderr);
  }
  return isAhead;
}

void Microphone::deliver(GstBuffer* packet) {
  const std::lock_guard lock(mutex_);
  std::int64_t time = static_cast<std::int64_t>(GST_BUFFER_PTS(packet)) - start_;
  if (!delivers_ || time < -kJitterNs || isAhead(GST_BUFFER_PTS(packet))) {
    return;
  }
  if (std::abs(time - expected_) <= kJitterNs) {
    time = expected_;
  }
  media_backend::EncodedAudioFrame frame;
  expected_ = time + static_cast<std::int64_t>(frame.durationNs);
  frame.ptsNs = static_cast<std::uint64_t>(time);
  frame.payload.resize(gst_buffer_get_size(packet));
  gst_buffer_extract(packet, 0, frame.payload.data(), frame.payload.size());
  track_.receive(std::move(frame), std::chrono::steady_clock::now());
  delivered_.notify_all();
}

GstBusSyncReply Microphone::onMessage(GstBus* /*bus*/, GstMessage* message, gpointer /*unused*/) {
  if (GST_MESSAGE_TYPE(message) == GST_MESSAGE_ERROR) {
    std::fprintf(stderr, "note: the microphone has failed, its track goes on without: %s\n",
                 BusError::parse(message).message.c_str());
  }
  gst_message_unref(message);
  return GST_BUS_DROP;
}

}  // namespace station
