#pragma once

#include <string>

#include <gst/app/gstappsrc.h>
#include <media_backend/GstVideoBackend.h>

#include "base/FrameRate.h"

namespace station {

// What the frames of a camera are.
struct FrameFormat {
  unsigned int width = 1280;  // pixels, even; they are square
  unsigned int height = 720;  // pixels, even
  FrameRate rate;
  std::string colorimetry;  // as in caps; empty if the source does not know

  // Sets the caps of frames in this format on an appsrc.
  void setCaps(const media_backend::GstVideoBackend& backend, GstElement* source) const;
};

}  // namespace station
