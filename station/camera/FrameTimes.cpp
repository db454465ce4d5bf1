#include "camera/FrameTimes.h"

#include <cstdlib>

namespace station {
namespace {

using media_backend::SourcePipeline;

constexpr std::size_t kMostReordered = 32;                // more than any codec's
constexpr std::size_t kExamined = 250;                    // frames
constexpr GstClockTimeDiff kTolerance = 2 * GST_MSECOND;  // Matroska rounds to milliseconds

std::string describePackets(const SourcePipeline::Config& /*config*/) {
  return "filesrc name=simu_file_src ! parsebin name=tracks "
         "appsink name=sink sync=false async=false max-buffers=64";
}

void linkVideo(GstElement* /*parsebin*/, GstPad* pad, gpointer sink) {
  g_autoptr(GstCaps) caps = gst_pad_query_caps(pad, nullptr);
  g_autoptr(GstPad) input = gst_element_get_static_pad(GST_ELEMENT(sink), "sink");
  const char* const type = gst_caps_is_empty(caps) || gst_caps_is_any(caps)
                               ? ""
                               : gst_structure_get_name(gst_caps_get_structure(caps, 0));
  if (!gst_pad_is_linked(input) &&
      (g_str_has_prefix(type, "video/") != FALSE || g_str_has_prefix(type, "image/") != FALSE)) {
    gst_pad_link(pad, input);
  }
}

void linkFirstVideo(GstElement* pipeline) {
  g_autoptr(GstElement) tracks = gst_bin_get_by_name(GST_BIN(pipeline), "tracks");
  g_autoptr(GstElement) sink = gst_bin_get_by_name(GST_BIN(pipeline), "sink");
  g_signal_connect_object(tracks, "pad-added", G_CALLBACK(linkVideo), sink,
                          static_cast<GConnectFlags>(0));
}

constexpr SourcePipeline::Traits kPackets =
    MediaProbe::traits("simu_file_src", "location", describePackets, linkFirstVideo);

}  // namespace

FrameTimes::FrameTimes(const std::string& path) : packets_(kPackets, {path, 0, 0, 0, false}) {}

// Empty at the end, and in a track without times, whose packets need not end.
std::optional<GstClockTime> FrameTimes::read() {
  std::size_t skipped = 0;
  while (!ended_ && reordered_.size() < kMostReordered && skipped < kExamined) {
    const MediaProbe::Sample sample = packets_.next();
    if (sample == nullptr) {
      ended_ = true;
      break;
    }
    // Without a running time, a frame before the segment is not shown.
    const GstSegment* const segment = gst_sample_get_segment(sample.get());
    const GstClockTime time =
        segment->format == GST_FORMAT_TIME  // bytes, if nothing takes the file apart
            ? gst_segment_to_running_time(segment, GST_FORMAT_TIME,
                                          GST_BUFFER_PTS(gst_sample_get_buffer(sample.get())))
            : GST_CLOCK_TIME_NONE;
    if (GST_CLOCK_TIME_IS_VALID(time)) {
      reordered_.push(time);
    } else {
      ++skipped;
    }
  }
  if (reordered_.empty()) {
    return std::nullopt;
  }
  const GstClockTime time = reordered_.top();
  reordered_.pop();
  first_ = first_.value_or(time);
  return time - *first_;
}

bool FrameTimes::agreeWith(const FrameRate& rate) {
  bool agree = true;
  while (agree && ahead_.size() < kExamined) {
    const std::optional<GstClockTime> time = read();
    if (!time) {
      break;
    }
    agree = std::abs(GST_CLOCK_DIFF(rate.timeOf(ahead_.size()), *time)) <= kTolerance;
    ahead_.push_back(*time);
  }
  return agree;
}

std::optional<GstClockTime> FrameTimes::next() {
  if (ahead_.empty()) {
    return read();
  }
  const GstClockTime time = ahead_.front();
  ahead_.pop_front();
  return time;
}

void FrameTimes::restart() {
  packets_.restart();
  reordered_ = {};
  ahead_.clear();
  first_.reset();
  ended_ = false;
}

}  // namespace station
