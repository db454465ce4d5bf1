#pragma once

#include <functional>
#include <mutex>
#include <optional>
#include <string>

#include <gst/app/gstappsink.h>
#include <gst/gst.h>
#include <media_backend/GstVideoBackend.h>

#include "audio/LiveAudio.h"
#include "base/Handles.h"
#include "base/StationError.h"
#include "http/AccessUnitBuffer.h"
#include "http/Av1Config.h"

namespace station {

// Puts encoded video and audio into fragmented MP4, one fragment per frame or packet: ISO BMFF as
// Media Source Extensions take it. A frame leaves when two more have come, as the muxer needs their
// times.
//
// Threads: the main context's; push() any, one at a time.
class Mp4Muxer {
 public:
  // What precedes the fragments.
  struct Header {
    std::string bytes;
    std::string contentType;  // with codecs, as MediaSource.isTypeSupported() takes it
  };

  // Whether there is a mapping of this codec to MP4.
  static bool supports(media_backend::GstVideoBackend::Codec codec);

  // `audio` is null for none. It has to be gapless, as the muxer waits for it. `onFragment` is
  // called on the muxer's thread after the buffer has got a fragment, `onFailure` on the main
  // context's. Throws StationError (Pipeline).
  Mp4Muxer(media_backend::GstVideoBackend::Codec codec, LiveAudio* audio,
           std::function<void()> onFragment,
           std::function<void(const StationError& error)> onFailure);
  ~Mp4Muxer();
  Mp4Muxer(const Mp4Muxer&) = delete;
  Mp4Muxer& operator=(const Mp4Muxer&) = delete;

  // Takes an access unit. Its running time is that of a pipeline with this base time. Begins with a
  // key frame.
  void push(GstSample* sample, GstClockTime baseTime);

  // Until the first frames have been muxed, there is none.
  std::optional<Header> header() const;
  // Fragments, with their number of the video's key frames as starting points.
  const AccessUnitBuffer& buffer() const { return buffer_; }
  // Time 0 of the MP4, by the system's monotonic clock; none before the first frame.
  std::optional<GstClockTime> origin() const;

 private:
  void pushAudio(const media_backend::EncodedAudioFrame& packet, GstClockTime time);
  void keepHeader(std::string bytes);
  void takeBoxes();
  static GstFlowReturn onSample(GstElement* sink, gpointer self);
  static gboolean onMessage(GstBus* bus, GstMessage* message, gpointer self);

  const bool isAv1_;
  const std::function<void()> onFragment_;
  const std::function<void(const StationError& error)> onFailure_;
  // 50 packets of audio a second beside the video.
  AccessUnitBuffer buffer_{/*allKeyFrames=*/false, 480};
  std::string bytes_;  // of boxes that are not complete; the muxer's thread

  mutable std::mutex mutex_;
  std::optional<Header> header_;
  std::optional<GstClockTime> origin_;
  std::optional<Av1Config> av1_;  // with the origin, if it is AV1

  PipelinePtr pipeline_;  // after what its threads use
  GstPtr<GstElement> video_;
  GstPtr<GstElement> audioSource_;
  std::optional<LiveAudio::Subscription> audio_;
};

}  // namespace station
