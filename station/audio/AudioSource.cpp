#include "audio/AudioSource.h"

#include <gst/app/gstappsrc.h>

#include "base/Pipelines.h"

namespace station {

std::string describeAudioSource(const std::string& element) {
  return " appsrc name=audio is-live=true format=time max-buffers=50 leaky-type=downstream "
         "caps=audio/x-opus,channel-mapping-family=0,channels=1,rate=48000 ! " +
         element;
}

AudioSource::AudioSource(LiveAudio& audio, GstElement* bin)
    : source_(findElement(bin, "audio")),
      subscription_(audio, [this](const auto& packet, auto begin) { push(packet, begin); }) {
  // Sends the caps downstream, so that nothing waits for a first packet, which may never come.
  gst_element_send_event(source_.get(), gst_event_new_gap(0, GST_CLOCK_TIME_NONE));
}

void AudioSource::push(const media_backend::EncodedAudioFrame& packet,
                       std::chrono::steady_clock::time_point begin) {
  // GStreamer's system clock and the steady clock are both CLOCK_MONOTONIC.
  const auto time = static_cast<GstClockTime>(begin.time_since_epoch().count());
  const GstClockTime base = gst_element_get_base_time(source_.get());
  if (!isPlaying(source_.get()) || time < base) {
    return;
  }
  GstBuffer* const buffer = gst_buffer_new_allocate(nullptr, packet.payload.size(), nullptr);
  gst_buffer_fill(buffer, 0, packet.payload.data(), packet.payload.size());
  GST_BUFFER_PTS(buffer) = time - base;
  GST_BUFFER_DURATION(buffer) = packet.durationNs;
  gst_app_src_push_buffer(GST_APP_SRC(source_.get()), buffer);
}

}  // namespace station
