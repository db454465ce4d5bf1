#include "rtsp/Server.h"

#include "audio/AudioSource.h"
#include "base/Callback.h"
#include "base/Pipelines.h"
#include "rtsp/Auth.h"
#include "rtsp/ClientStream.h"
#include "rtsp/ClientTimeouts.h"
#include "rtsp/NullTcpTransport.h"
#include "rtsp/ReceiverReports.h"
#include "rtsp/Sessions.h"

namespace station {
namespace {

using media_backend::GstVideoBackend;

// Longer than a session lives without keep-alive.
constexpr std::chrono::seconds kIdleConnection{90};
constexpr std::chrono::milliseconds kCheckInterval{250};
constexpr unsigned int kAnsweredConnections = 16;  // that are answered with 503
// Below the kernel's ephemeral ports.
constexpr guint16 kFirstUdpPort = 16384;
constexpr guint16 kLastUdpPort = 32767;

// Whether the stream has a transport in the session.
bool isSetUp(GstRTSPSession* session, GstRTSPStream* stream) {
  GList* const all = gst_rtsp_session_filter(session, nullptr, nullptr);
  bool found = false;
  for (const GList* item = all; item != nullptr; item = item->next) {
    auto* const media = GST_RTSP_SESSION_MEDIA(item->data);
    const guint streams = gst_rtsp_media_n_streams(gst_rtsp_session_media_get_media(media));
    for (guint i = 0; i < streams; ++i) {
      GstRTSPStreamTransport* const transport = gst_rtsp_session_media_get_transport(media, i);
      found = found ||
              (transport != nullptr && gst_rtsp_stream_transport_get_stream(transport) == stream);
    }
  }
  g_list_free_full(all, g_object_unref);
  return found;
}

// Refuses a second session, which others would lack.
//
// Workaround for rtsp-client.c of gst-rtsp-server, still needed with 1.28.8: a second SETUP of a
// stream in a session replaces its transport. send_func() may be using it, whereupon get_data_seq()
// asserts, or the stream counts it for the other protocol after a PLAY that failed; either way the
// process ends.
GstRTSPStatusCode onSetup(GstRTSPClient* client, GstRTSPContext* context, gpointer /*unused*/) {
  const bool isRefused =
      context->session != nullptr ? isSetUp(context->session, context->stream) : hasSession(client);
  return isRefused ? GST_RTSP_STS_METHOD_NOT_VALID_IN_THIS_STATE : GST_RTSP_STS_OK;
}

// The library logs each unknown part of a Transport header as a warning, so a single request can
// write thousands of lines.
void keepRequestsOutOfLog() {
  static const guint kHandler = g_log_set_handler(
      "GStreamer-RTSP", G_LOG_LEVEL_WARNING,
      [](const gchar*, GLogLevelFlags, const gchar*, gpointer) {}, nullptr);
  static_cast<void>(kHandler);
}

using FeedsPtr = std::shared_ptr<RtspFeeds>;

void dropFeeds(gpointer feeds, GClosure* /*closure*/) {
  delete static_cast<FeedsPtr*>(feeds);
}

void onPlay(GstRTSPClient* /*client*/, GstRTSPContext* context, gpointer feeds) {
  GstRTSPMedia* const media = gst_rtsp_session_media_get_media(context->sessmedia);
  (*static_cast<FeedsPtr*>(feeds))->requestKeyPicture(media);
  updateNullTransports(media);
  // Wakes the streams' sending threads: they may still wait for a TCP client that has left.
  for (guint i = 0; i < gst_rtsp_media_n_streams(media); ++i) {
    if (auto* const transport = gst_rtsp_session_media_get_transport(context->sessmedia, i)) {
      gst_rtsp_stream_transport_message_sent(transport);
    }
  }
}

void onMedia(GstRTSPMediaFactory* /*factory*/, GstRTSPMedia* media, gpointer feeds) {
  (*static_cast<FeedsPtr*>(feeds))->add(media);
  addNullTransports(media);
  dropReceiverReports(media);
}

// The library's description, followed by the station's own streams: metadata, then audio.
std::string describeTracks(const GstVideoBackend& backend, const ServeOptions& options,
                           bool hasAudio) {
  std::string text = "( " + requireDescription(backend, Use::Rtsp,
                                               {options.encoder, 0, false, false, options.mtu});
  int stream = 0;
  const auto payloader = [&](const char* element) {
    ++stream;
    return std::string(element) + " name=pay" + std::to_string(stream) +
           " pt=" + std::to_string(96 + stream) + " mtu=" + std::to_string(options.mtu) + " ";
  };
  if (options.klv) {
    text +=
        " appsrc name=klv is-live=true format=time do-timestamp=true max-buffers=10 "
        "leaky-type=downstream caps=meta/x-klv,parsed=true ! " +
        payloader("rtpklvpay");
  }
  if (hasAudio) {
    text += describeAudioSource(payloader("rtpopuspay"));
  }
  return text + ")";
}

GstRTSPFilterResult removeClient(GstRTSPServer* /*server*/, GstRTSPClient* /*client*/,
                                 gpointer /*unused*/) {
  return GST_RTSP_FILTER_REMOVE;
}

}  // namespace

RtspServer::RtspServer(const GstVideoBackend& backend, LiveCamera& camera, LiveAudio* audio,
                       const ServeOptions& options)
    : options_(options),
      description_(describeTracks(backend, options, audio != nullptr)),
      feeds_(std::make_shared<RtspFeeds>(backend, camera, audio)),
      server_(gst_rtsp_server_new()),
      sessions_(newSessionPool(options.maxClients)),
      listener_("rtsp", options.address, options.port,
                {options.maxClients + kAnsweredConnections, kIdleConnection, options.quiet},
                [this](GSocketConnection* connection) { accept(connection); }),
      metrics_("rtsp", [this] { return listener_.figures(); }) {
  keepRequestsOutOfLog();
  gst_rtsp_server_set_session_pool(server_.get(), sessions_.get());
  g_signal_connect_data(server_.get(), "client-connected", G_CALLBACK(guarded<onClient>),
                        new FeedsPtr(feeds_), dropFeeds, static_cast<GConnectFlags>(0));
  addCamera();
}

RtspServer::~RtspServer() {
  listener_.stop();
  // Returns a list of the clients that removeClient() picks: none.
  g_list_free(gst_rtsp_server_client_filter(server_.get(), removeClient, nullptr));
  feeds_->close();
}

void RtspServer::addCamera() {
  GstRTSPMediaFactory* const factory = gst_rtsp_media_factory_new();
  gst_rtsp_media_factory_set_launch(factory, description_.c_str());
  gst_rtsp_media_factory_set_shared(factory, TRUE);
  // RTP over UDP would be in the clear.
  gst_rtsp_media_factory_set_protocols(
      factory,
      options_.certificate != nullptr
          ? GST_RTSP_LOWER_TRANS_TCP
          : static_cast<GstRTSPLowerTrans>(GST_RTSP_LOWER_TRANS_UDP | GST_RTSP_LOWER_TRANS_TCP));
  g_signal_connect_data(factory, "media-configure", G_CALLBACK(guarded<onMedia>),
                        new FeedsPtr(feeds_), dropFeeds, static_cast<GConnectFlags>(0));
  restrictPorts(factory);
  if (options_.credentials) {
    requirePassword(server_.get(), factory, *options_.credentials, options_.isEncrypted());
  }
  const GstPtr<GstRTSPMountPoints> mounts(gst_rtsp_server_get_mount_points(server_.get()));
  gst_rtsp_mount_points_add_factory(mounts.get(), options_.path.c_str(), factory);  // takes it
}

// Binds the sockets of RTP over UDP to the address of --bind as well.
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
  GSocket* const socket = g_socket_connection_get_socket(connection);
  attachLink(socket, makeLink());
  gst_rtsp_server_transfer_connection(server_.get(), G_SOCKET(g_object_ref(socket)), address,
                                      g_inet_socket_address_get_port(G_INET_SOCKET_ADDRESS(remote)),
                                      nullptr);
  if (!checking_ || !checking_->isActive()) {
    checking_.emplace(kCheckInterval, [this] {
      checkClients();
      return listener_.connections() > 0;
    });
  }
}

// onActivity owns a reference to the sessions: the library's thread may call it after the server's
// destructor.
std::unique_ptr<ClientLink> RtspServer::makeLink() {
  const std::shared_ptr<GstRTSPSessionPool> sessions(
      GST_RTSP_SESSION_POOL(g_object_ref(sessions_.get())), g_object_unref);
  return std::make_unique<ClientLink>(ClientLink{
      ClientFilter(std::to_string(++accepted_), listener_.connections() <= options_.maxClients),
      options_.certificate.get(), [feeds = feeds_] { return feeds->isMediaEnding(); },
      [sessions](const std::string& owner) { touchSessions(sessions.get(), owner); }, clock_});
}

void RtspServer::onClient(GstRTSPServer* server, GstRTSPClient* client, gpointer feeds) {
  const GstPtr<GstRTSPSessionPool> sessions(gst_rtsp_server_get_session_pool(server));
  GstRTSPConnection* const connection = gst_rtsp_client_get_connection(client);
  ClientTimeouts::track(client, gst_rtsp_connection_get_read_socket(connection), sessions.get());
  g_signal_connect(client, "pre-setup-request", G_CALLBACK(guarded<onSetup>), nullptr);
  g_signal_connect_data(client, "play-request", G_CALLBACK(guarded<onPlay>),
                        new FeedsPtr(*static_cast<FeedsPtr*>(feeds)), dropFeeds,
                        static_cast<GConnectFlags>(0));
}

void RtspServer::checkClients() {
  gst_rtsp_session_pool_cleanup(sessions_.get());
  GList* const clients = gst_rtsp_server_client_filter(server_.get(), nullptr, nullptr);
  for (const GList* item = clients; item != nullptr; item = item->next) {
    ClientTimeouts::check(GST_RTSP_CLIENT(item->data), clock_->isAtOneForASecond());
  }
  g_list_free_full(clients, g_object_unref);
}

}  // namespace station
