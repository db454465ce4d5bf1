#include "audio/OpusFile.h"

#include <atomic>
#include <cerrno>
#include <chrono>
#include <system_error>

#include <gst/app/gstappsink.h>
#include <gst/gst.h>
#include <opus.h>
#include <unistd.h>

#include "base/Pipelines.h"
#include "base/StationError.h"

namespace station {
namespace {

using std::chrono::steady_clock;

constexpr GstClockTime kPoll = 50 * GST_MSECOND;
constexpr std::chrono::seconds kPacketTimeout{10};  // without a packet
constexpr int kChannels = 1;
constexpr int kRate = 48000;  // Hz

[[noreturn]] void fail(const std::string& path, const std::string& reason) {
  throw StationError(ExitCode::Source, "audio file " + path + ": " + reason);
}

// Sets `tracksKnown` after the last track of the file has been found.
PipelinePtr play(const std::string& path, std::atomic<bool>& tracksKnown) {
  PipelinePtr pipeline = buildPipeline(
      "filesrc name=file ! parsebin name=tracks ! audio/x-opus ! appsink name=packets sync=false",
      "the reader of " + path);
  g_object_set(findElement(pipeline.get(), "file").get(), "location", path.c_str(), nullptr);
  g_signal_connect_swapped(findElement(pipeline.get(), "tracks").get(), "no-more-pads",
                           G_CALLBACK(+[](std::atomic<bool>* known) { *known = true; }),
                           &tracksKnown);
  gst_element_set_state(pipeline.get(), GST_STATE_PLAYING);
  return pipeline;
}

void requireFormat(const std::string& path, GstCaps* caps) {
  const GstStructure* const format = gst_caps_get_structure(caps, 0);
  int channels = kChannels;
  int rate = kRate;
  gst_structure_get_int(format, "channels", &channels);
  gst_structure_get_int(format, "rate", &rate);
  if (channels != kChannels || rate != kRate) {
    fail(path, "the recorder takes 1 channel at 48000 Hz, this is " + std::to_string(channels) +
                   (channels == 1 ? " channel at " : " channels at ") + std::to_string(rate) +
                   " Hz");
  }
}

OpusPacket packetOf(const std::string& path, GstBuffer* buffer) {
  OpusPacket packet;
  packet.payload.resize(gst_buffer_get_size(buffer));
  gst_buffer_extract(buffer, 0, packet.payload.data(), packet.payload.size());
  const int samples = opus_packet_get_nb_samples(
      packet.payload.data(), static_cast<opus_int32>(packet.payload.size()), kRate);
  if (samples <= 0) {
    fail(path, "damaged Opus packet");
  }
  packet.duration = std::chrono::nanoseconds(samples * GST_SECOND / kRate);
  return packet;
}

}  // namespace

std::vector<OpusPacket> readOpusFile(const std::string& path) {
  if (access(path.c_str(), R_OK) != 0) {
    fail(path, std::generic_category().message(errno));
  }
  std::atomic<bool> tracksKnown{false};
  const PipelinePtr pipeline = play(path, tracksKnown);
  const GstPtr<GstElement> element = findElement(pipeline.get(), "packets");
  const GstPtr<GstBus> bus(gst_element_get_bus(pipeline.get()));
  GstAppSink* const sink = GST_APP_SINK(element.get());
  std::vector<OpusPacket> packets;
  std::string error;
  auto deadline = steady_clock::now() + kPacketTimeout;
  while (error.empty() && !gst_app_sink_is_eos(sink)) {
    const bool allTracksKnown = tracksKnown;
    g_autoptr(GstSample) sample = gst_app_sink_try_pull_sample(sink, kPoll);
    if (sample == nullptr) {
      if (const std::optional<BusError> failure = BusError::take(bus.get())) {
        // Nobody takes the tracks of other formats.
        if (packets.empty() && failure->is(GST_STREAM_ERROR, GST_STREAM_ERROR_FAILED)) {
          break;
        }
        error = failure->message + (failure->detail.empty() ? "" : " (" + failure->detail + ")");
      }
      if (error.empty() && allTracksKnown && packets.empty()) {
        break;
      }
      // The reader of a damaged file may report neither an end nor an error.
      if (error.empty() && steady_clock::now() > deadline) {
        error = "GStreamer stopped reading it without an error";
      }
      continue;
    }
    deadline = steady_clock::now() + kPacketTimeout;
    if (packets.empty()) {
      requireFormat(path, gst_sample_get_caps(sample));
    }
    GstBuffer* const buffer = gst_sample_get_buffer(sample);
    if (!GST_BUFFER_FLAG_IS_SET(buffer, GST_BUFFER_FLAG_HEADER)) {
      packets.push_back(packetOf(path, buffer));
    }
  }
  if (packets.empty()) {
    fail(path, error.empty() ? "no Opus track; \"ffmpeg -i " + path +
                                   " -vn -c:a libopus -ac 1 FILE.ogg\" makes one"
                             : "no Opus track: " + error);
  }
  if (!error.empty()) {
    fail(path, error);
  }
  return packets;
}

}  // namespace station
