#pragma once

#include <memory>
#include <optional>

#include <media_backend/GstVideoBackend.h>

#include "audio/LiveAudio.h"
#include "audio/SharedMicrophone.h"
#include "base/StationError.h"
#include "camera/LiveCamera.h"
#include "http/Server.h"
#include "record/AudioFeed.h"
#include "record/Recording.h"
#include "record/SegmentHook.h"
#include "rtsp/Server.h"
#include "run/Engine.h"
#include "serve/MainLoop.h"

namespace station {

// The outputs of a running camera.
//
// Threads: the main context's.
class Outputs {
 public:
  using Options = std::shared_ptr<const EngineOptions>;

  // Starts them. Throws StationError. The other arguments outlive them.
  Outputs(const Options& options, const media_backend::GstVideoBackend& backend, LiveCamera& camera,
          MainLoop& loop, SegmentHook& hook);

  // Ends the outputs whose options have changed, and starts them again: with the options of before
  // if they do not start, and returns why. Throws StationError if that fails, too.
  std::optional<StationError> change(const Options& options);

  // Completes the recording, and prints its summary. Throws StationError.
  void finish();

  // Whether all recordings are complete; after finish().
  bool isComplete() const { return isComplete_; }

 private:
  void adopt(const Options& options);
  void start();
  void startRtsp();
  void startHttp();

  const media_backend::GstVideoBackend& backend_;
  LiveCamera& camera_;
  MainLoop& loop_;
  SegmentHook& hook_;
  Options options_;
  bool isComplete_ = true;
  SharedMicrophone microphone_;
  std::optional<LiveAudio> audio_;  // of the servers
  std::optional<RtspServer> rtsp_;
  std::optional<HttpServer> http_;
  std::optional<AudioFeed> recordedAudio_;
  std::optional<Recording> recording_;
};

}  // namespace station
