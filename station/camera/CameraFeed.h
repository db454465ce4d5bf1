#pragma once

#include <memory>

#include <gst/app/gstappsrc.h>
#include <gst/gst.h>
#include <media_backend/GstVideoBackend.h>

#include "base/GstPtr.h"
#include "camera/LiveCamera.h"

namespace station {

// A live camera's frames into a pipeline's source element, without copying, while this object
// lives. An encoder that is late misses frames; it never holds the camera up.
class CameraFeed {
 public:
  // Source element of a description, in front of the library's fragments.
  static constexpr const char* kElement =
      "appsrc name=camera is-live=true format=time do-timestamp=true max-buffers=2 "
      "leaky-type=downstream ";

  // `bin` holds that element. Throws StationError (Pipeline) if it does not.
  CameraFeed(const media_backend::GstVideoBackend& backend, LiveCamera& camera, GstElement* bin);

 private:
  void push(const std::shared_ptr<lumora::ExportedFrame>& frame);

  const media_backend::GstVideoBackend& backend_;
  const GstPtr<GstElement> source_;
  const GstClockTime duration_;                  // of a frame
  const LiveCamera::Subscription subscription_;  // behind what it uses
};

}  // namespace station
