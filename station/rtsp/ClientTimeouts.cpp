#include "rtsp/ClientTimeouts.h"

#include <algorithm>
#include <utility>

#include "rtsp/NullTcpTransport.h"

namespace station {
namespace {

constexpr const char* kKey = "station-client";
constexpr std::chrono::seconds kSetup{15};   // that a client has to set up a session
constexpr std::chrono::seconds kLeftOut{3};  // longer than a session takes to end

using TimePoint = std::chrono::steady_clock::time_point;

// Whether something has been so for that long; `since` remembers when it began.
bool lasts(std::optional<TimePoint>& since, bool isSo, std::chrono::seconds duration) {
  const TimePoint now = std::chrono::steady_clock::now();
  if (!isSo) {
    since.reset();
  } else if (!since) {
    since = now;
  }
  return since && now - *since >= duration;
}

bool hasSession(GstRTSPClient* client) {
  GList* const sessions = gst_rtsp_client_session_filter(client, nullptr, nullptr);
  const bool any = sessions != nullptr;
  g_list_free_full(sessions, g_object_unref);
  return any;
}

// Whether its stream goes without it; true for a moment while a viewer ends, too.
bool isLeftOut(GstRTSPSessionMedia* viewer) {
  GstRTSPStreamTransport* const transport = gst_rtsp_session_media_get_transport(viewer, 0);
  GList* const served = gst_rtsp_stream_transport_filter(
      gst_rtsp_stream_transport_get_stream(transport), nullptr, nullptr);
  const bool leftOut = g_list_find(served, transport) == nullptr;
  g_list_free_full(served, g_object_unref);
  return leftOut;
}

// Whether any viewer of a session that plays is left out. Their drains are adjusted.
bool lookAtViewers(GstRTSPSession* session) {
  GList* const viewers = gst_rtsp_session_filter(session, nullptr, nullptr);
  bool leftOut = false;
  for (const GList* item = viewers; item != nullptr; item = item->next) {
    auto* const viewer = GST_RTSP_SESSION_MEDIA(item->data);
    if (gst_rtsp_session_media_get_rtsp_state(viewer) == GST_RTSP_STATE_PLAYING) {
      adjustDrain(viewer);
      leftOut = leftOut || isLeftOut(viewer);
    }
  }
  g_list_free_full(viewers, g_object_unref);
  return leftOut;
}

}  // namespace

void RtspClient::follow(GstRTSPClient* client, GSocket* socket, GstRTSPSessionPool* pool) {
  auto* const self = new RtspClient(socket, pool);
  g_object_set_data_full(G_OBJECT(client), kKey, self,
                         [](gpointer data) { delete static_cast<RtspClient*>(data); });
  g_signal_connect(client, "new-session", G_CALLBACK(onSession), self);
}

void RtspClient::look(GstRTSPClient* client) {
  auto* const self = static_cast<RtspClient*>(g_object_get_data(G_OBJECT(client), kKey));
  self->look(hasSession(client));
}

RtspClient::RtspClient(GSocket* socket, GstRTSPSessionPool* pool)
    : socket_(socket), pool_(GST_RTSP_SESSION_POOL(g_object_ref(pool))) {}

RtspClient::~RtspClient() {
  for (const auto& session : sessions()) {
    gst_rtsp_session_pool_remove(pool_.get(), session.get());
  }
}

void RtspClient::onSession(GstRTSPClient* /*client*/, GstRTSPSession* session, gpointer self) {
  auto* const client = static_cast<RtspClient*>(self);
  const std::lock_guard lock(client->mutex_);
  client->sessions_.push_back(std::make_unique<WeakReference>(session));
}

// Those that have not ended; forgets the others.
std::vector<GstPtr<GstRTSPSession>> RtspClient::sessions() {
  const std::lock_guard lock(mutex_);
  std::vector<GstPtr<GstRTSPSession>> sessions;
  const auto hasEnded = [&](const std::unique_ptr<WeakReference>& reference) {
    GstPtr<GstRTSPSession> session(
        static_cast<GstRTSPSession*>(WeakReference::get(reference.get())));
    const bool ended = session == nullptr;
    if (!ended) {
      sessions.push_back(std::move(session));
    }
    return ended;
  };
  sessions_.erase(std::remove_if(sessions_.begin(), sessions_.end(), hasEnded), sessions_.end());
  return sessions;
}

void RtspClient::look(bool hasSession) {
  bool isLeftOut = false;
  for (const auto& session : sessions()) {
    isLeftOut = lookAtViewers(session.get()) || isLeftOut;
  }
  const bool isLate = lasts(leftOut_, isLeftOut, kLeftOut);
  if (!lasts(sessionless_, !hasSession, kSetup) && !isLate) {
    return;
  }
  // The library learns of it on its own thread; its connections must not be closed on another.
  const GstPtr<GSocket> socket(static_cast<GSocket*>(WeakReference::get(&socket_)));
  if (socket != nullptr) {
    g_socket_shutdown(socket.get(), TRUE, TRUE, nullptr);
  }
}

}  // namespace station
