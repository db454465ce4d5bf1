#pragma once

#include <atomic>
#include <map>
#include <memory>
#include <mutex>
#include <optional>

#include <gst/rtsp-server/rtsp-server.h>
#include <media_backend/GstVideoBackend.h>

#include "audio/AudioSource.h"
#include "camera/CameraFeed.h"
#include "camera/LiveCamera.h"

namespace station {

// Feeds camera and audio into the server library's media. Media are prepared and unprepared on
// threads of the library, the last ones possibly after the camera has gone.
//
// Threads: any.
class RtspFeeds : public std::enable_shared_from_this<RtspFeeds> {
 public:
  // `backend`, `camera` and `audio`, null for none, are used until close().
  RtspFeeds(const media_backend::GstVideoBackend& backend, LiveCamera& camera, LiveAudio* audio)
      : backend_(backend), camera_(camera), audio_(audio) {}

  // Feeds this media until it is unprepared; does nothing after close().
  void add(GstRTSPMedia* media);
  // Asks for a key picture of this media, if it has a feed.
  void requestKeyPicture(GstRTSPMedia* media);
  // Ends all feeds.
  void close();
  // Whether a media is being unprepared. The library refuses requests for such a media.
  bool isMediaEnding() const { return ending_ > 0; }

 private:
  class Key;
  struct Feed {
    CameraFeed camera;
    std::optional<AudioSource> audio;
    Feed(RtspFeeds& feeds, GstElement* bin);
  };
  static void onTargetState(GstRTSPMedia* media, int state, gpointer unused);
  static void onUnprepared(GstRTSPMedia* media, gpointer unused);

  const media_backend::GstVideoBackend& backend_;
  LiveCamera& camera_;
  LiveAudio* const audio_;
  std::mutex mutex_;
  bool closed_ = false;
  std::atomic<unsigned int> ending_{0};
  std::map<GstRTSPMedia*, std::unique_ptr<Feed>> feeds_;
};

}  // namespace station
