#include "http/Mp4Muxer.h"

#include <cstring>
#include <utility>

#include <gst/app/gstappsrc.h>
#include <gst/pbutils/codec-utils.h>

#include "base/Callback.h"
#include "base/Pipelines.h"

namespace station {
namespace {

using media_backend::GstVideoBackend;
using Codec = GstVideoBackend::Codec;

constexpr guint32 kSampleRate = 48000;  // of all Opus
constexpr std::size_t kBoxHead = 8;     // size and type

const char* parserOf(Codec codec) {
  switch (codec) {
    case Codec::H264:
      return "h264parse";
    case Codec::H265:
      return "h265parse";
    default:
      return nullptr;
  }
}

// Fragments of 1 ms hold one frame each.
std::string describeMuxer(Codec codec, bool hasAudio) {
  return std::string("appsrc name=video format=time max-buffers=60 leaky-type=downstream ! ") +
         parserOf(codec) +
         " ! mp4mux name=muxer fragment-duration=1 streamable=true ! "
         "appsink name=fragments sync=false emit-signals=true " +
         (hasAudio ? "appsrc name=sound format=time max-buffers=100 leaky-type=downstream "
                     "caps=audio/x-opus,channel-mapping-family=0,channels=1,rate=48000 ! muxer."
                   : "");
}

std::uint32_t numberAt(const std::string& bytes, std::size_t offset) {
  std::uint32_t number = 0;
  std::memcpy(&number, bytes.data() + offset, sizeof(number));
  return GUINT32_FROM_BE(number);
}

// Whether a moof is of the first track, and its only sample refers to no other (ISO/IEC 14496-12:
// the flags are the last field of tfhd).
bool isKeyFragment(const std::string& moof) {
  constexpr std::size_t kTrackNumber = 44;  // after the heads of moof, mfhd, traf and tfhd
  constexpr std::uint32_t kNonSync = 0x10000;
  const std::size_t end = kTrackNumber - 12 + numberAt(moof, kTrackNumber - 12);
  return numberAt(moof, kTrackNumber) == 1 && (numberAt(moof, end - 4) & kNonSync) == 0;
}

// Workaround for mp4mux of GStreamer 1.22, not needed with 1.26: it writes Opus's sample rate
// little-endian, and browsers refuse the track.
void correctOpusRate(std::string& header) {
  const std::size_t box = header.find("dOps");
  constexpr std::size_t kRateOffset = 8;  // after type, version, channels and pre-skip
  if (box != std::string::npos && box + kRateOffset + 4 <= header.size()) {
    const std::uint32_t rate = GUINT32_TO_BE(kSampleRate);
    std::memcpy(header.data() + box + kRateOffset, &rate, sizeof(rate));
  }
}

}  // namespace

bool Mp4Muxer::supports(Codec codec) {
  return parserOf(codec) != nullptr;
}

Mp4Muxer::Mp4Muxer(Codec codec, LiveAudio* audio, std::function<void()> onFragment,
                   std::function<void(const StationError& error)> onFailure)
    : onFragment_(std::move(onFragment)),
      onFailure_(std::move(onFailure)),
      pipeline_(buildPipeline(describeMuxer(codec, audio != nullptr), "the MP4 muxer")),
      video_(findElement(pipeline_.get(), "video")) {
  g_signal_connect(findElement(pipeline_.get(), "fragments").get(), "new-sample",
                   G_CALLBACK(guarded<onSample>), this);
  const GstPtr<GstBus> bus(gst_element_get_bus(pipeline_.get()));
  gst_bus_add_watch(bus.get(), guarded<onMessage>, this);
  gst_element_set_state(pipeline_.get(), GST_STATE_PLAYING);  // the bus reports a failure
  if (audio != nullptr) {
    sound_ = findElement(pipeline_.get(), "sound");
    audio_.emplace(*audio, [this](const auto& packet, auto begin) {
      pushAudio(packet, static_cast<GstClockTime>(begin.time_since_epoch().count()));
    });
  }
}

Mp4Muxer::~Mp4Muxer() {
  audio_.reset();
  const GstPtr<GstBus> bus(gst_element_get_bus(pipeline_.get()));
  gst_bus_remove_watch(bus.get());
}

void Mp4Muxer::push(GstSample* sample, GstClockTime baseTime) {
  GstBuffer* const accessUnit = gst_sample_get_buffer(sample);
  const GstClockTime time =
      baseTime + gst_segment_to_running_time(gst_sample_get_segment(sample), GST_FORMAT_TIME,
                                             GST_BUFFER_PTS(accessUnit));
  const std::lock_guard lock(mutex_);
  if (!origin_) {
    if (GST_BUFFER_FLAG_IS_SET(accessUnit, GST_BUFFER_FLAG_DELTA_UNIT)) {
      return;
    }
    origin_ = time;
    g_object_set(video_.get(), "caps", gst_sample_get_caps(sample), nullptr);
  }
  // Deep, as the muxer must not exhaust the encoder's buffer pool.
  GstBuffer* const copy = gst_buffer_copy_deep(accessUnit);
  GST_BUFFER_PTS(copy) = GST_BUFFER_DTS(copy) = time - *origin_;
  gst_app_src_push_buffer(GST_APP_SRC(video_.get()), copy);
}

void Mp4Muxer::pushAudio(const media_backend::EncodedAudioFrame& packet, GstClockTime time) {
  const std::lock_guard lock(mutex_);
  if (!origin_ || time < *origin_) {
    return;
  }
  GstBuffer* const buffer = gst_buffer_new_allocate(nullptr, packet.payload.size(), nullptr);
  gst_buffer_fill(buffer, 0, packet.payload.data(), packet.payload.size());
  GST_BUFFER_PTS(buffer) = GST_BUFFER_DTS(buffer) = time - *origin_;
  GST_BUFFER_DURATION(buffer) = packet.durationNs;
  gst_app_src_push_buffer(GST_APP_SRC(sound_.get()), buffer);
}

std::optional<Mp4Muxer::Header> Mp4Muxer::header() const {
  const std::lock_guard lock(mutex_);
  return header_;
}

std::optional<GstClockTime> Mp4Muxer::origin() const {
  const std::lock_guard lock(mutex_);
  return origin_;
}

GstFlowReturn Mp4Muxer::onSample(GstElement* sink, gpointer self) {
  auto* const muxer = static_cast<Mp4Muxer*>(self);
  g_autoptr(GstSample) sample = gst_app_sink_try_pull_sample(GST_APP_SINK(sink), 0);
  GstBuffer* const buffer = sample != nullptr ? gst_sample_get_buffer(sample) : nullptr;
  GstMapInfo map;
  if (buffer != nullptr && gst_buffer_map(buffer, &map, GST_MAP_READ)) {
    muxer->bytes_.append(reinterpret_cast<const char*>(map.data), map.size);
    gst_buffer_unmap(buffer, &map);
    muxer->takeBoxes();
  }
  return GST_FLOW_OK;
}

// The muxer sends boxes in parts: a header ends with moov, a fragment with mdat.
void Mp4Muxer::takeBoxes() {
  std::size_t end = 0;
  while (bytes_.size() >= end + kBoxHead) {
    const std::string type = bytes_.substr(end + 4, 4);
    end += numberAt(bytes_, end);
    if (end > bytes_.size()) {
      return;
    }
    if (type == "moov") {
      keepHeader(bytes_.substr(0, end));
    } else if (type == "mdat") {
      buffer_.add(bytes_.data(), end, isKeyFragment(bytes_));
      onFragment_();
    } else {
      continue;
    }
    bytes_.erase(0, end);
    end = 0;
  }
}

void Mp4Muxer::keepHeader(std::string bytes) {
  correctOpusRate(bytes);
  const GstPtr<GstElement> muxer = findElement(pipeline_.get(), "muxer");
  std::string codecs;
  g_autoptr(GstIterator) pads = gst_element_iterate_sink_pads(muxer.get());
  gst_iterator_foreach(
      pads,
      [](const GValue* value, gpointer text) {
        g_autoptr(GstCaps) caps = gst_pad_get_current_caps(GST_PAD(g_value_get_object(value)));
        g_autofree gchar* codec = gst_codec_utils_caps_get_mime_codec(caps);
        std::string& list = *static_cast<std::string*>(text);
        list += (list.empty() ? "" : ",") + std::string(codec != nullptr ? codec : "");
      },
      &codecs);
  const std::lock_guard lock(mutex_);
  header_ = {std::move(bytes), "video/mp4; codecs=\"" + codecs + "\""};
}

gboolean Mp4Muxer::onMessage(GstBus* /*bus*/, GstMessage* message, gpointer self) {
  if (GST_MESSAGE_TYPE(message) == GST_MESSAGE_ERROR) {
    static_cast<Mp4Muxer*>(self)->onFailure_(BusError::parse(message).as());
  }
  return G_SOURCE_CONTINUE;
}

}  // namespace station
