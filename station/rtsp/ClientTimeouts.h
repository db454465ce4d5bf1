#pragma once

#include <chrono>
#include <memory>
#include <mutex>
#include <optional>
#include <vector>

#include <gst/rtsp-server/rtsp-server.h>

#include "base/Handles.h"
#include "base/WeakReference.h"

namespace station {

// Tracks an RTSP client until it disconnects, disconnects it after a timeout, and removes its
// sessions with it: the server keeps them for 60 s otherwise, so clients that reconnect without
// TEARDOWN would exhaust the session pool.
//
// Threads: check() the main context's; the rest runs on the server library's thread of the client.
class ClientTimeouts {
 public:
  static void track(GstRTSPClient* client, GSocket* socket, GstRTSPSessionPool* pool);

  // To be called a few times a second. Disconnects a client that has had no session for 15 s, time
  // with `serverIsBusy` not counted, and one whose stream has dropped its transport for 3 s, as
  // streams do over TCP at a backlog of 10 s: its player gets no more frames.
  static void check(GstRTSPClient* client, bool serverIsBusy);

  ~ClientTimeouts();
  ClientTimeouts(const ClientTimeouts&) = delete;
  ClientTimeouts& operator=(const ClientTimeouts&) = delete;

 private:
  using TimePoint = std::chrono::steady_clock::time_point;

  ClientTimeouts(GSocket* socket, GstRTSPSessionPool* pool);
  static void onSession(GstRTSPClient* client, GstRTSPSession* session, gpointer self);
  std::vector<GstPtr<GstRTSPSession>> sessions();
  void check(bool hasSession);
  void disconnect(const char* reason) const;

  WeakReference socket_;
  const GstPtr<GstRTSPSessionPool> pool_;
  std::optional<TimePoint> noSessionSince_, stalledSince_;
  std::mutex mutex_;
  std::vector<std::unique_ptr<WeakReference>> sessions_;
};

}  // namespace station
