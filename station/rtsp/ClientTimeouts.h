#pragma once

#include <chrono>
#include <memory>
#include <mutex>
#include <optional>
#include <vector>

#include <gst/rtsp-server/rtsp-server.h>

#include "base/GstPtr.h"
#include "base/WeakReference.h"

namespace station {

// What the server keeps of a client beside what the server library does: the sessions that the
// client has begun, and when its connection has to end.
//
// Threads: look() on that of the default main context; the library's, one a client, does the rest.
class RtspClient {
 public:
  // Follows a client until it goes. `socket`: its connection's. The sessions that it begins end
  // with it. The library ends their pipelines, but keeps them for a minute: of clients that come
  // and go without TEARDOWN, soon as many as may be.
  static void follow(GstRTSPClient* client, GSocket* socket, GstRTSPSessionPool* pool);

  // To be called a few times a second. Ends the connection of a client
  // - that has had no session for 15 s,
  // - whose stream has left it out for 3 s, as it does with one over TCP that is ten seconds late:
  //   its player would wait for pictures that do not come.
  static void look(GstRTSPClient* client);

  ~RtspClient();
  RtspClient(const RtspClient&) = delete;
  RtspClient& operator=(const RtspClient&) = delete;

 private:
  RtspClient(GSocket* socket, GstRTSPSessionPool* pool);
  static void onSession(GstRTSPClient* client, GstRTSPSession* session, gpointer self);
  std::vector<GstPtr<GstRTSPSession>> sessions();
  void look(bool hasSession);

  WeakReference socket_;
  const GstPtr<GstRTSPSessionPool> pool_;
  std::optional<std::chrono::steady_clock::time_point> sessionless_, leftOut_;  // since when
  std::mutex mutex_;
  std::vector<std::unique_ptr<WeakReference>> sessions_;
};

}  // namespace station
