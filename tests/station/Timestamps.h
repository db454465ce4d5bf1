#pragma once

#include <cstdint>
#include <string>
#include <vector>

#include <gst/video/video.h>

#include "support/Pipeline.h"

// The times in the first frames of H.264 that GStreamer's parser finds, in microseconds since 1970.
// `source`: elements that deliver the stream.
inline std::vector<std::int64_t> timestampsIn(const std::string& source, std::size_t frames) {
  Pipeline reader(source + " ! h264parse ! appsink name=out sync=false");
  std::vector<std::int64_t> times;
  GstSample* sample = nullptr;
  for (; frames > 0 && (sample = reader.pull()) != nullptr; --frames) {
    gpointer state = nullptr;
    while (GstMeta* const meta = gst_buffer_iterate_meta_filtered(
               gst_sample_get_buffer(sample), &state,
               GST_VIDEO_SEI_USER_DATA_UNREGISTERED_META_API_TYPE)) {
      guint8 status = 0;
      guint64 time = 0;
      if (gst_video_sei_user_data_unregistered_parse_precision_time_stamp(
              reinterpret_cast<GstVideoSEIUserDataUnregisteredMeta*>(meta), &status, &time) != 0) {
        times.push_back(static_cast<std::int64_t>(time));
      }
    }
    gst_sample_unref(sample);
  }
  return times;
}
