#pragma once

#include <optional>
#include <string>

#include <gst/video/video.h>
#include <media_backend/V4l2FrameSource.h>

#include "base/FrameRate.h"

namespace station {

// What the pictures of a media file are, as GStreamer decodes them.
struct MediaFormat {
  unsigned int width = 1280;  // of a decoded picture, if its pixels were square
  unsigned int height = 720;  // likewise
  unsigned int quarters = 0;  // quarter turns to the right, to show it upright
  FrameRate rate;
  std::optional<GstVideoColorimetry> colorimetry;  // empty: the default for the size
  bool fullRange = false;                          // samples use 0 to 255

  // Colorimetry, as in caps, of the NV12 pictures that the media file source makes in this size.
  std::string colorimetryAt(unsigned int nv12Width, unsigned int nv12Height) const;
};

// Decodes the beginning of the file. Empty if that fails or takes longer than five seconds.
std::optional<MediaFormat> readMediaFormat(const std::string& path);

// Colorimetry, as in caps, of the NV12 pictures that the library makes in this size of a device's
// sample; empty for a sample without a format.
std::string colorimetryOf(GstSample* sample, unsigned int width, unsigned int height);

// Captures a frame as the library's V4L2 source does, and returns its colorimetry, as in caps;
// empty if that fails or takes longer than five seconds.
std::string readDeviceColorimetry(const media_backend::V4l2FrameSourceConfig& config);

}  // namespace station
