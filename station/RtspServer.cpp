#include "RtspServer.h"

#include <algorithm>
#include <utility>
#include <vector>

#include "RtspAuth.h"
#include "WeakReference.h"

namespace station {
namespace {

using media_backend::GstVideoBackend;

// Longer than a session lives without its client's keep-alive, which the server library sees to.
constexpr std::chrono::seconds kIdle{90};
constexpr guint kSetupSeconds = 15;            // that a client has to set up its session
constexpr guint kMaxRequestBytes = 16 * 1024;  // of a request's body
// Below the ports that the kernel gives out by itself.
constexpr guint16 kFirstUdpPort = 16384;
constexpr guint16 kLastUdpPort = 32767;

// The station's source element, then the three chains.
std::string describe(const GstVideoBackend& backend, const ServeOptions& options) {
  const std::string encoder = backend.transportEncoderChain(options.encoder, "-1");
  if (encoder.empty()) {
    throw StationError(ExitCode::CodecNotUsable,
                       std::string("codec not usable for RTSP on ") + backend.name() + ": " +
                           GstVideoBackend::codecName(options.encoder.codec));
  }
  return std::string("( ") + CameraFeed::kElement + backend.inputConversionChain(nullptr) +
         encoder + backend.rtspPayloaderChain(options.encoder.codec, options.mtu) + ")";
}

// Closes a client that has still no session.
gboolean checkClient(gpointer reference) {
  g_autoptr(GstRTSPClient) client = static_cast<GstRTSPClient*>(WeakReference::get(reference));
  if (client == nullptr) {
    return G_SOURCE_REMOVE;
  }
  GList* const sessions = gst_rtsp_client_session_filter(client, nullptr, nullptr);
  if (sessions == nullptr) {
    gst_rtsp_client_close(client);
  }
  g_list_free_full(sessions, g_object_unref);
  return G_SOURCE_REMOVE;
}

// The sessions that a client has begun, which end with it. The server library ends their pipelines,
// but keeps them for a minute: of clients that come and go without TEARDOWN, soon as many as may
// be.
class ClientSessions {
 public:
  explicit ClientSessions(GstRTSPSessionPool* pool)
      : pool_(GST_RTSP_SESSION_POOL(g_object_ref(pool))) {}
  ~ClientSessions() {
    for (const auto& reference : sessions_) {
      const GstPtr<GstRTSPSession> session(
          static_cast<GstRTSPSession*>(WeakReference::get(reference.get())));
      if (session != nullptr) {
        gst_rtsp_session_pool_remove(pool_.get(), session.get());
      }
    }
  }
  ClientSessions(const ClientSessions&) = delete;
  ClientSessions& operator=(const ClientSessions&) = delete;

  static void onSession(GstRTSPClient* /*client*/, GstRTSPSession* session, gpointer self) {
    auto& sessions = static_cast<ClientSessions*>(self)->sessions_;
    const auto hasEnded = [](const std::unique_ptr<WeakReference>& reference) {
      return GstPtr<GstRTSPSession>(
                 static_cast<GstRTSPSession*>(WeakReference::get(reference.get()))) == nullptr;
    };
    sessions.erase(std::remove_if(sessions.begin(), sessions.end(), hasEnded), sessions.end());
    sessions.push_back(std::make_unique<WeakReference>(session));
  }
  static void drop(gpointer self) { delete static_cast<ClientSessions*>(self); }

 private:
  const GstPtr<GstRTSPSessionPool> pool_;
  std::vector<std::unique_ptr<WeakReference>> sessions_;
};

bool isPlaying(GstRTSPSession* session) {
  GList* const all = gst_rtsp_session_filter(session, nullptr, nullptr);
  bool playing = false;
  for (const GList* item = all; item != nullptr; item = item->next) {
    playing = playing || gst_rtsp_session_media_get_rtsp_state(
                             GST_RTSP_SESSION_MEDIA(item->data)) == GST_RTSP_STATE_PLAYING;
  }
  g_list_free_full(all, g_object_unref);
  return playing;
}

// The server library would change the transport while packets are sent by it, and end the process.
GstRTSPStatusCode onSetup(GstRTSPClient* /*client*/, GstRTSPContext* context, gpointer /*unused*/) {
  return context->session != nullptr && isPlaying(context->session)
             ? GST_RTSP_STS_METHOD_NOT_VALID_IN_THIS_STATE
             : GST_RTSP_STS_OK;
}

using FeedsPtr = std::shared_ptr<RtspFeeds>;

void onMedia(GstRTSPMediaFactory* /*factory*/, GstRTSPMedia* media, gpointer feeds) {
  (*static_cast<FeedsPtr*>(feeds))->add(media);
}

void dropFeeds(gpointer feeds, GClosure* /*closure*/) {
  delete static_cast<FeedsPtr*>(feeds);
}

GstRTSPFilterResult removeClient(GstRTSPServer* /*server*/, GstRTSPClient* /*client*/,
                                 gpointer /*unused*/) {
  return GST_RTSP_FILTER_REMOVE;
}

}  // namespace

RtspServer::RtspServer(const GstVideoBackend& backend, LiveCamera& camera,
                       const ServeOptions& options)
    : options_(options),
      description_(describe(backend, options)),
      feeds_(std::make_shared<RtspFeeds>(backend, camera)),
      server_(gst_rtsp_server_new()),
      listener_(options.address, options.port, {options.maxClients, kIdle},
                [this](GSocketConnection* connection) { accept(connection); }) {
  gst_rtsp_server_set_content_length_limit(server_.get(), kMaxRequestBytes);
  const GstPtr<GstRTSPSessionPool> sessions(gst_rtsp_server_get_session_pool(server_.get()));
  gst_rtsp_session_pool_set_max_sessions(sessions.get(), options.maxClients);
  g_signal_connect(server_.get(), "client-connected", G_CALLBACK(onClient), this);
  addCamera();
}

RtspServer::~RtspServer() {
  // Gives a list of the clients that removeClient() picks, which is none.
  g_list_free(gst_rtsp_server_client_filter(server_.get(), removeClient, nullptr));
  feeds_->close();
}

void RtspServer::addCamera() {
  GstRTSPMediaFactory* const factory = gst_rtsp_media_factory_new();
  gst_rtsp_media_factory_set_launch(factory, description_.c_str());
  gst_rtsp_media_factory_set_shared(factory, TRUE);
  gst_rtsp_media_factory_set_protocols(
      factory, static_cast<GstRTSPLowerTrans>(GST_RTSP_LOWER_TRANS_UDP | GST_RTSP_LOWER_TRANS_TCP));
  g_signal_connect_data(factory, "media-configure", G_CALLBACK(onMedia), new FeedsPtr(feeds_),
                        dropFeeds, static_cast<GConnectFlags>(0));
  restrictPorts(factory);
  if (options_.credentials) {
    requirePassword(server_.get(), factory, *options_.credentials);
  }
  const GstPtr<GstRTSPMountPoints> mounts(gst_rtsp_server_get_mount_points(server_.get()));
  gst_rtsp_mount_points_add_factory(mounts.get(), options_.path.c_str(), factory);  // takes it
}

// RTP over UDP leaves from the address that was asked for, too.
void RtspServer::restrictPorts(GstRTSPMediaFactory* factory) const {
  g_autoptr(GInetAddress) address = g_inet_address_new_from_string(options_.address.c_str());
  if (g_inet_address_get_is_any(address)) {
    return;
  }
  g_autoptr(GstRTSPAddressPool) pool = gst_rtsp_address_pool_new();
  gst_rtsp_address_pool_add_range(pool, options_.address.c_str(), options_.address.c_str(),
                                  kFirstUdpPort, kLastUdpPort, /*ttl=*/0);
  gst_rtsp_media_factory_set_address_pool(factory, pool);
}

void RtspServer::accept(GSocketConnection* connection) {
  g_autoptr(GSocketAddress) remote = g_socket_connection_get_remote_address(connection, nullptr);
  if (remote == nullptr) {
    return;
  }
  g_autofree gchar* address =
      g_inet_address_to_string(g_inet_socket_address_get_address(G_INET_SOCKET_ADDRESS(remote)));
  auto* const socket = G_SOCKET(g_object_ref(g_socket_connection_get_socket(connection)));
  gst_rtsp_server_transfer_connection(server_.get(), socket, address,
                                      g_inet_socket_address_get_port(G_INET_SOCKET_ADDRESS(remote)),
                                      nullptr);
}

void RtspServer::onClient(GstRTSPServer* server, GstRTSPClient* client, gpointer /*self*/) {
  const GstPtr<GstRTSPSessionPool> pool(gst_rtsp_server_get_session_pool(server));
  auto* const sessions = new ClientSessions(pool.get());
  g_object_set_data_full(G_OBJECT(client), "station-sessions", sessions, ClientSessions::drop);
  g_signal_connect(client, "new-session", G_CALLBACK(ClientSessions::onSession), sessions);
  g_signal_connect(client, "pre-setup-request", G_CALLBACK(onSetup), nullptr);
  g_timeout_add_seconds_full(G_PRIORITY_DEFAULT, kSetupSeconds, checkClient,
                             new WeakReference(client), WeakReference::drop);
}

void RtspServer::tick() {
  const GstPtr<GstRTSPSessionPool> sessions(gst_rtsp_server_get_session_pool(server_.get()));
  gst_rtsp_session_pool_cleanup(sessions.get());
}

}  // namespace station
