#pragma once

#include <cstdint>
#include <memory>
#include <optional>
#include <string>

#include <gst/rtsp-server/rtsp-server.h>
#include <media_backend/GstVideoBackend.h>

#include "audio/LiveAudio.h"
#include "base/Metrics.h"
#include "camera/LiveCamera.h"
#include "rtsp/ClientStream.h"
#include "rtsp/Feeds.h"
#include "serve/Listener.h"
#include "serve/ServeOptions.h"
#include "serve/Timer.h"

namespace station {

// A camera over RTSP: one pipeline for all clients, which exists only while one of them plays.
//
// Threads: the main context's.
class RtspServer {
 public:
  // Begins to listen. Throws StationError (CodecNotUsable, and as Listener does).
  RtspServer(const media_backend::GstVideoBackend& backend, LiveCamera& camera, LiveAudio* audio,
             const ServeOptions& options);
  ~RtspServer();
  RtspServer(const RtspServer&) = delete;
  RtspServer& operator=(const RtspServer&) = delete;

  const Listener& listener() const { return listener_; }

 private:
  void addCamera();
  void restrictPorts(GstRTSPMediaFactory* factory) const;
  void accept(GSocketConnection* connection);
  std::unique_ptr<ClientLink> makeLink();
  void checkClients();

  static void onClient(GstRTSPServer* server, GstRTSPClient* client, gpointer feeds);

  const ServeOptions options_;
  const std::string description_;
  const std::shared_ptr<RtspFeeds> feeds_;
  const GstPtr<GstRTSPServer> server_;
  const GstPtr<GstRTSPSessionPool> sessions_;
  const std::shared_ptr<RequestClock> clock_ = std::make_shared<RequestClock>();
  std::uint64_t accepted_ = 0;
  Listener listener_;
  const Metrics::Publication metrics_;
  std::optional<Timer> checking_;  // active while there are clients
};

}  // namespace station
