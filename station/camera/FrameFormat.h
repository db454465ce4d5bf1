#pragma once

#include <memory>
#include <string>

#include <gst/app/gstappsrc.h>
#include <lumora/FrameExport.h>
#include <media_backend/GstVideoBackend.h>

#include "base/FrameRate.h"

namespace station {

// What the frames of a camera are.
struct FrameFormat {
  unsigned int width = 1280;  // pixels, even; they are square
  unsigned int height = 720;  // pixels, even
  FrameRate rate;
  std::string colorimetry;  // as in caps; empty if the source does not know
  bool isPlain = false;     // packed, in system memory, which the board's elements copy
  std::string feed{};       // how frames get to the elements, for display

  // Sets the caps of frames in this format on an appsrc.
  void setCaps(const media_backend::GstVideoBackend& backend, GstElement* source) const;
  // A buffer that keeps the frame alive, without times. Throws StationError (Pipeline).
  GstBuffer* wrap(const media_backend::GstVideoBackend& backend,
                  const std::shared_ptr<lumora::ExportedFrame>& frame) const;
};

}  // namespace station
