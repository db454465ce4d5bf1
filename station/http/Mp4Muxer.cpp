#include "http/Mp4Muxer.h"

#include <utility>

#include <gst/app/gstappsrc.h>
#include <gst/pbutils/codec-utils.h>

#include "base/Callback.h"
#include "base/Pipelines.h"
#include "http/Mp4Boxes.h"

namespace station {
namespace {

using media_backend::GstVideoBackend;
using Codec = GstVideoBackend::Codec;

// Into the format of MP4, which AV1 has already: the filter makes the muxer's pad one of video.
// Null for a codec without a mapping.
const char* parserOf(Codec codec) {
  switch (codec) {
    case Codec::H264:
      return "h264parse";
    case Codec::H265:
      return "h265parse";
    case Codec::Av1:
      return "video/x-av1";
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
         (hasAudio ? "appsrc name=audio format=time max-buffers=100 leaky-type=downstream "
                     "caps=audio/x-opus,channel-mapping-family=0,channels=1,rate=48000 ! muxer."
                   : "");
}

// The binding of AV1 leaves out temporal delimiters, the first OBU of each temporal unit.
void dropTemporalDelimiter(GstBuffer* temporalUnit) {
  if (gst_buffer_memcmp(temporalUnit, 0, "\x12\0", 2) == 0) {
    gst_buffer_resize(temporalUnit, 2, -1);
  }
}

std::optional<Av1Config> readConfig(GstBuffer* temporalUnit, const GstCaps* caps) {
  return Av1Config::of(MappedBuffer(temporalUnit).bytes(), caps);
}

}  // namespace

bool Mp4Muxer::supports(Codec codec) {
  return parserOf(codec) != nullptr;
}

Mp4Muxer::Mp4Muxer(Codec codec, LiveAudio* audio, std::function<void()> onFragment,
                   std::function<void(const StationError& error)> onFailure)
    : isAv1_(codec == Codec::Av1),
      onFragment_(std::move(onFragment)),
      onFailure_(std::move(onFailure)),
      pipeline_(buildPipeline(describeMuxer(codec, audio != nullptr), "the MP4 muxer")),
      video_(findElement(pipeline_.get(), "video")) {
  g_signal_connect(findElement(pipeline_.get(), "fragments").get(), "new-sample",
                   G_CALLBACK(guarded<onSample>), this);
  const GstPtr<GstBus> bus(gst_element_get_bus(pipeline_.get()));
  gst_bus_add_watch(bus.get(), guarded<onMessage>, this);
  gst_element_set_state(pipeline_.get(), GST_STATE_PLAYING);  // the bus reports a failure
  if (audio != nullptr) {
    audioSource_ = findElement(pipeline_.get(), "audio");
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
    if (isAv1_) {
      av1_ = readConfig(accessUnit, gst_sample_get_caps(sample));
    }
    origin_ = time;
    g_object_set(video_.get(), "caps", gst_sample_get_caps(sample), nullptr);
  }
  // Deep, as the muxer must not exhaust the encoder's buffer pool.
  GstBuffer* const copy = gst_buffer_copy_deep(accessUnit);
  if (isAv1_) {
    dropTemporalDelimiter(copy);
  }
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
  gst_app_src_push_buffer(GST_APP_SRC(audioSource_.get()), buffer);
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
  if (buffer != nullptr) {
    muxer->bytes_ += MappedBuffer(buffer).bytes();
    muxer->takeBoxes();
  }
  return GST_FLOW_OK;
}

// The muxer sends boxes in parts: a header ends with moov, a fragment with mdat.
void Mp4Muxer::takeBoxes() {
  std::size_t end = 0;
  while (bytes_.size() >= end + kMp4BoxHead) {
    const std::string type = bytes_.substr(end + 4, 4);
    end += mp4NumberAt(bytes_, end);
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
  const GstPtr<GstElement> muxer = findElement(pipeline_.get(), "muxer");
  const GstPtr<GstPad> pad(gst_element_get_static_pad(muxer.get(), "video_0"));
  g_autoptr(GstCaps) caps = gst_pad_get_current_caps(pad.get());
  g_autofree gchar* codec = gst_codec_utils_caps_get_mime_codec(caps);
  const std::lock_guard lock(mutex_);
  if (av1_) {
    replaceAv1Config(bytes, av1_->content);
  }
  if (audioSource_ != nullptr) {
    correctOpusRate(bytes);
  }
  const std::string video = av1_ ? av1_->codecs : codec != nullptr ? codec : "";
  header_ = {std::move(bytes),
             "video/mp4; codecs=\"" + video + (audioSource_ != nullptr ? ",opus\"" : "\"")};
}

gboolean Mp4Muxer::onMessage(GstBus* /*bus*/, GstMessage* message, gpointer self) {
  if (GST_MESSAGE_TYPE(message) == GST_MESSAGE_ERROR) {
    static_cast<Mp4Muxer*>(self)->onFailure_(BusError::parse(message).as());
  }
  return G_SOURCE_CONTINUE;
}

}  // namespace station
