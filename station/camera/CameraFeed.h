#pragma once

#include <atomic>
#include <cstdint>
#include <memory>

#include <gst/app/gstappsrc.h>
#include <gst/gst.h>
#include <media_backend/GstVideoBackend.h>

#include "base/Handles.h"
#include "camera/CaptureTimes.h"
#include "camera/LiveCamera.h"

namespace station {

// Pushes a live camera's frames into a pipeline's appsrc, without copying, and their KLV packets
// into the appsrc "klv" if there is one, while this object lives. The encoded frames get the time
// of their capture (MisbSt0604).
class CameraFeed {
 public:
  // `bin` holds the appsrc "camera", and the element `encoded` that takes the encoded frames;
  // throws StationError (Pipeline) otherwise.
  CameraFeed(const media_backend::GstVideoBackend& backend, LiveCamera& camera, GstElement* bin,
             const char* encoded);

  // Asks the encoder for a key picture at the next frame, for a viewer that joins; at most four a
  // second, so that viewers who come and go do not take the bit rate of those who stay. Any thread.
  void requestKeyPicture() { isKeyWanted_ = true; }

 private:
  void push(const CameraFrame& frame);
  void sendKeyRequest();

  const media_backend::GstVideoBackend& backend_;
  const GstPtr<GstElement> source_;
  const GstPtr<GstElement> klv_;  // or null
  const FrameFormat& format_;
  const std::shared_ptr<CaptureTimes> times_ = std::make_shared<CaptureTimes>();
  std::atomic<bool> isKeyWanted_{false};
  std::uint64_t sinceKey_ = 0;                   // frames since the last request, or the start
  const LiveCamera::Subscription subscription_;  // after what it uses
};

}  // namespace station
