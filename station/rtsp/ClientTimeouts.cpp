#include "rtsp/ClientTimeouts.h"

#include <algorithm>
#include <utility>

#include "base/Callback.h"
#include "rtsp/NullTcpTransport.h"
#include "rtsp/Sessions.h"
#include "serve/Client.h"

namespace station {
namespace {

constexpr const char* kTimeoutsKey = "station-client-timeouts";
constexpr std::chrono::seconds kNoSession{15};
constexpr std::chrono::seconds kStalled{3};  // longer than a session takes to end

using std::chrono::steady_clock;

// Whether `condition` has held for `duration`; `since` keeps when it began.
bool lasts(std::optional<steady_clock::time_point>& since, bool condition,
           std::chrono::seconds duration) {
  const steady_clock::time_point now = steady_clock::now();
  if (!condition) {
    since.reset();
  } else if (!since) {
    since = now;
  }
  return since && now - *since >= duration;
}

// Whether its stream has dropped it; true for a moment during its TEARDOWN, too.
bool isStalled(GstRTSPStreamTransport* transport) {
  GList* const served = gst_rtsp_stream_transport_filter(
      gst_rtsp_stream_transport_get_stream(transport), nullptr, nullptr);
  const bool stalled = g_list_find(served, transport) == nullptr;
  g_list_free_full(served, g_object_unref);
  return stalled;
}

bool isStalled(GstRTSPSessionMedia* media) {
  const guint streams = gst_rtsp_media_n_streams(gst_rtsp_session_media_get_media(media));
  bool stalled = false;
  for (guint i = 0; i < streams; ++i) {
    GstRTSPStreamTransport* const transport = gst_rtsp_session_media_get_transport(media, i);
    stalled = stalled || (transport != nullptr && isStalled(transport));
  }
  return stalled;
}

// Whether any playing media of the session is stalled. Updates their null transports.
bool checkMedia(GstRTSPSession* session) {
  GList* const all = gst_rtsp_session_filter(session, nullptr, nullptr);
  bool stalled = false;
  for (const GList* item = all; item != nullptr; item = item->next) {
    auto* const media = GST_RTSP_SESSION_MEDIA(item->data);
    if (gst_rtsp_session_media_get_rtsp_state(media) == GST_RTSP_STATE_PLAYING) {
      updateNullTransports(gst_rtsp_session_media_get_media(media));
      stalled = stalled || isStalled(media);
    }
  }
  g_list_free_full(all, g_object_unref);
  return stalled;
}

}  // namespace

void ClientTimeouts::track(GstRTSPClient* client, GSocket* socket, GstRTSPSessionPool* pool) {
  auto* const self = new ClientTimeouts(socket, pool);
  g_object_set_data_full(G_OBJECT(client), kTimeoutsKey, self,
                         [](gpointer data) { delete static_cast<ClientTimeouts*>(data); });
  g_signal_connect(client, "new-session", G_CALLBACK(guarded<onSession>), self);
}

void ClientTimeouts::check(GstRTSPClient* client, bool serverIsBusy) {
  auto* const self =
      static_cast<ClientTimeouts*>(g_object_get_data(G_OBJECT(client), kTimeoutsKey));
  self->check(serverIsBusy || hasSession(client));
}

ClientTimeouts::ClientTimeouts(GSocket* socket, GstRTSPSessionPool* pool)
    : socket_(socket), pool_(GST_RTSP_SESSION_POOL(g_object_ref(pool))) {}

ClientTimeouts::~ClientTimeouts() {
  for (const auto& session : sessions()) {
    gst_rtsp_session_pool_remove(pool_.get(), session.get());
  }
}

void ClientTimeouts::onSession(GstRTSPClient* /*client*/, GstRTSPSession* session, gpointer self) {
  auto* const client = static_cast<ClientTimeouts*>(self);
  const std::lock_guard lock(client->mutex_);
  client->sessions_.push_back(std::make_unique<WeakReference>(session));
}

// Those that still exist; forgets the others.
std::vector<GstPtr<GstRTSPSession>> ClientTimeouts::sessions() {
  const std::lock_guard lock(mutex_);
  std::vector<GstPtr<GstRTSPSession>> sessions;
  const auto hasEnded = [&](const std::unique_ptr<WeakReference>& reference) {
    GstPtr<GstRTSPSession> session(static_cast<GstRTSPSession*>(reference->get()));
    const bool ended = session == nullptr;
    if (!ended) {
      sessions.push_back(std::move(session));
    }
    return ended;
  };
  sessions_.erase(std::remove_if(sessions_.begin(), sessions_.end(), hasEnded), sessions_.end());
  return sessions;
}

void ClientTimeouts::check(bool hasSession) {
  bool isStalled = false;
  for (const auto& session : sessions()) {
    isStalled = checkMedia(session.get()) || isStalled;
  }
  if (lasts(stalledSince_, isStalled, kStalled)) {
    disconnect("it reads too slowly");
  }
  if (lasts(noSessionSince_, !hasSession, kNoSession)) {
    disconnect("no session for 15 s");
  }
}

// Shuts the socket down, which the library notices on its own thread: its connections must not be
// closed on another.
void ClientTimeouts::disconnect(const char* reason) const {
  const GstPtr<GSocket> socket(static_cast<GSocket*>(socket_.get()));
  Client::disconnect(socket.get(), ClientEvent::Time, reason);
}

}  // namespace station
