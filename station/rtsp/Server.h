#pragma once

#include <atomic>
#include <memory>
#include <mutex>
#include <optional>
#include <string>

#include <gst/rtsp-server/rtsp-server.h>
#include <media_backend/GstVideoBackend.h>

#include "camera/LiveCamera.h"
#include "rtsp/Feeds.h"
#include "serve/Listener.h"
#include "serve/ServeOptions.h"

namespace station {

// A camera over RTSP: one pipeline for all who watch, which is there only while somebody does.
//
// Threads: made, used and ended on that of the default main context.
class RtspServer {
 public:
  // Listens from now on; throws StationError (CodecNotUsable, and as Listener does).
  RtspServer(const media_backend::GstVideoBackend& backend, LiveCamera& camera,
             const ServeOptions& options);
  ~RtspServer();
  RtspServer(const RtspServer&) = delete;
  RtspServer& operator=(const RtspServer&) = delete;

  const Listener& listener() const { return listener_; }

  // To be called a few times a second: ends what is not kept alive, late or idle.
  void tick();

 private:
  void addCamera();
  void restrictPorts(GstRTSPMediaFactory* factory) const;
  void accept(GSocketConnection* connection);

  static void onClient(GstRTSPServer* server, GstRTSPClient* client, gpointer self);

  const ServeOptions options_;
  const std::string description_;
  const std::shared_ptr<RtspFeeds> feeds_;
  const GstPtr<GstRTSPServer> server_;
  GSocket* accepting_ = nullptr;  // of the client that the server library makes at the moment
  Listener listener_;
};

}  // namespace station
