#pragma once

#include <map>
#include <memory>
#include <mutex>

#include <gst/rtsp-server/rtsp-server.h>
#include <media_backend/GstVideoBackend.h>

#include "camera/CameraFeed.h"
#include "camera/LiveCamera.h"

namespace station {

// The feeds of the pipelines that are watched. Those come and go on threads of the server library,
// which does not wait for them: the last ones may go when the camera has gone.
//
// Threads: any.
class RtspFeeds : public std::enable_shared_from_this<RtspFeeds> {
 public:
  // `backend` and `camera` are used until close().
  RtspFeeds(const media_backend::GstVideoBackend& backend, LiveCamera& camera)
      : backend_(backend), camera_(camera) {}

  // Frames for this pipeline, until it stops; none after close().
  void add(GstRTSPMedia* media);
  // No more frames for any pipeline.
  void close();

 private:
  class Key;
  static void onUnprepared(GstRTSPMedia* media, gpointer unused);

  const media_backend::GstVideoBackend& backend_;
  LiveCamera& camera_;
  std::mutex mutex_;
  bool closed_ = false;
  std::map<GstRTSPMedia*, std::unique_ptr<CameraFeed>> feeds_;
};

}  // namespace station
