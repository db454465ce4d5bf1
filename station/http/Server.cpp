#include "http/Server.h"

#include <algorithm>
#include <utility>

#include <gio/gio.h>

#include "base/Callback.h"
#include "http/Message.h"
#include "http/RequestFilter.h"
#include "http/StreamMetrics.h"
#include "serve/Client.h"

namespace station {
namespace {

using media_backend::GstVideoBackend;
using Codec = GstVideoBackend::Codec;

constexpr std::chrono::seconds kIdle{30};
// From a connection's begin, before TLS, to the last byte of its only request.
constexpr guint kRequestSeconds = 10;
// A browser takes a few connections: for the page, its stream and its status.
constexpr unsigned int kConnectionsPerClient = 2;
constexpr unsigned int kMoreConnections = 16;

// Files of the page, compiled in.
struct PageFile {
  const char* path;
  const char* resource;
  const char* contentType;
};

constexpr PageFile kPageFiles[] = {
    {"/", "/station/index.html", "text/html; charset=utf-8"},
    {"/page.css", "/station/page.css", "text/css; charset=utf-8"},
    {"/page.js", "/station/page.js", "text/javascript; charset=utf-8"},
    {"/player.js", "/station/player.js", "text/javascript; charset=utf-8"},
    {"/icon.svg", "/station/icon.svg", "image/svg+xml"},
};

std::string resource(const char* path) {
  g_autoptr(GBytes) bytes = g_resources_lookup_data(path, G_RESOURCE_LOOKUP_FLAGS_NONE, nullptr);
  gsize size = 0;
  const gconstpointer data = g_bytes_get_data(bytes, &size);
  return {static_cast<const char*>(data), size};
}

const char* contentTypeOf(const HttpStream& stream, StreamResponse::Kind kind) {
  switch (kind) {
    case StreamResponse::Kind::Snapshot:
      return "image/jpeg";
    case StreamResponse::Kind::Mp4:
      return "video/mp4";
    default:
      return stream.contentType();
  }
}

gboolean onDeadline(gpointer message) {
  Client::disconnect(socketOf(SOUP_SERVER_MESSAGE(message)).get(), ClientEvent::Time,
                     "no whole request in 10 s");
  return G_SOURCE_REMOVE;
}

void dropSource(gpointer source) {
  g_source_destroy(static_cast<GSource*>(source));
  g_source_unref(static_cast<GSource*>(source));
}

}  // namespace

HttpServer::HttpServer(const GstVideoBackend& backend, LiveCamera& camera, LiveAudio* audio,
                       const ServeOptions& options, HttpStream::OnFailure onFailure)
    : backend_(backend),
      camera_(camera),
      audio_(audio),
      options_(options),
      onFailure_(std::move(onFailure)),
      guard_(options),
      wakeUp_([this] { writeAll(); }),
      server_(soup_server_new("server-header", "media-station", nullptr)),
      listener_(
          "http", options.address, options.port,
          {kConnectionsPerClient * options.maxClients + kMoreConnections, kIdle, options.quiet},
          [this](GSocketConnection* connection) { accept(connection); }),
      metrics_("http", [this] { return listener_.figures(); }) {
  addStream(options.encoder.codec);
  // For browsers, which show no other stream, and for snapshots.
  if (options.encoder.codec != Codec::Mjpeg && backend.supports(Codec::Mjpeg)) {
    addStream(Codec::Mjpeg);
  }
  setUpServer();
}

HttpServer::~HttpServer() {
  listener_.stop();
  responses_.clear();
  soup_server_disconnect(server_.get());
}

void HttpServer::addStream(Codec codec) {
  GstVideoBackend::EncoderConfig config = options_.encoder;
  config.codec = codec;
  streams_.emplace_back(
      backend_, camera_, audio_, config, [this] { wakeUp_.signal(); }, onFailure_);
}

void HttpServer::setUpServer() {
  g_signal_connect(server_.get(), "request-started", G_CALLBACK(guarded<onRequestStarted>), this);
  soup_server_add_early_handler(server_.get(), nullptr, guarded<onHeaders>, this, nullptr);
  soup_server_add_handler(server_.get(), nullptr, guarded<onRequest>, this, nullptr);
}

void HttpServer::accept(GSocketConnection* connection) {
  g_autoptr(GSocketAddress) local = g_socket_connection_get_local_address(connection, nullptr);
  g_autoptr(GSocketAddress) remote = g_socket_connection_get_remote_address(connection, nullptr);
  if (local == nullptr || remote == nullptr) {
    return;  // gone already, and the server library would log a critical warning
  }
  GSocket* const socket = g_socket_connection_get_socket(connection);
  Client::noteActivity(socket);
  setSocket(remote, socket);
  g_autoptr(GIOStream) stream = filterHttpRequests(connection, options_.certificate.get());
  soup_server_accept_iostream(server_.get(), stream, local, remote, nullptr);
}

// At once for a new connection: libsoup takes the filtered stream for one that needs no handshake.
void HttpServer::onRequestStarted(SoupServer* /*server*/, SoupServerMessage* message,
                                  gpointer /*self*/) {
  addProtectiveHeaders(message);
  GSource* const deadline = g_timeout_source_new_seconds(kRequestSeconds);
  g_source_set_callback(deadline, guarded<onDeadline>, message, nullptr);
  g_source_attach(deadline, nullptr);
  g_object_set_data_full(G_OBJECT(message), "request-deadline", deadline, dropSource);
}

void HttpServer::onHeaders(SoupServer* /*server*/, SoupServerMessage* message, const char* /*path*/,
                           GHashTable* /*query*/, gpointer self) {
  soup_message_body_set_accumulate(soup_server_message_get_request_body(message), FALSE);
  static_cast<HttpServer*>(self)->guard_.check(message);
}

void HttpServer::onRequest(SoupServer* /*server*/, SoupServerMessage* message, const char* path,
                           GHashTable* /*query*/, gpointer self) {
  g_object_set_data(G_OBJECT(message), "request-deadline", nullptr);
  addProtectiveHeaders(message);  // libsoup drops them after "100 Continue"
  auto* const server = static_cast<HttpServer*>(self);
  try {
    server->answer(message, path);
  } catch (const StationError& error) {
    refuse(message, SOUP_STATUS_INTERNAL_SERVER_ERROR, "the encoder does not start");
    server->onFailure_(error);
  }
}

void HttpServer::answer(SoupServerMessage* message, const std::string& path) {
  if (!answerText(message, path) && !answerStream(message, path)) {
    refuse(message, SOUP_STATUS_NOT_FOUND, "nothing is served at this path");
  }
}

bool HttpServer::answerText(SoupServerMessage* message, const std::string& path) const {
  const ServerStatus status = {backend_,
                               camera_.options(),
                               camera_.format(),
                               options_,
                               (g_get_monotonic_time() - begin_) / G_USEC_PER_SEC,
                               streams_};
  if (path == "/status.json") {
    respond(message, "application/json", statusJson(status));
    return true;
  }
  if (path == "/metrics") {
    respond(message, "text/plain; version=0.0.4; charset=utf-8", prometheusText(status));
    return true;
  }
  for (const PageFile& file : kPageFiles) {
    if (path == file.path) {
      respond(message, file.contentType, resource(file.resource));
      return true;
    }
  }
  return false;
}

bool HttpServer::answerStream(SoupServerMessage* message, const std::string& path) {
  if (path == "/snapshot.jpg") {
    HttpStream* const jpeg = jpegStream();
    if (jpeg == nullptr) {
      refuse(message, SOUP_STATUS_NOT_FOUND, "this board has no JPEG encoder");
    } else {
      serveStream(message, *jpeg, StreamResponse::Kind::Snapshot);
    }
    return true;
  }
  for (HttpStream& stream : streams_) {
    if (path == stream.path()) {
      serveStream(message, stream, StreamResponse::Kind::Stream);
      return true;
    }
    if (path == stream.mp4Path()) {
      serveStream(message, stream, StreamResponse::Kind::Mp4);
      return true;
    }
  }
  return false;
}

void HttpServer::serveStream(SoupServerMessage* message, HttpStream& stream,
                             StreamResponse::Kind kind) {
  if (std::string(soup_server_message_get_method(message)) == "HEAD") {
    // The length is unknown.
    SoupMessageHeaders* const headers = soup_server_message_get_response_headers(message);
    soup_message_headers_set_encoding(headers, SOUP_ENCODING_CHUNKED);
    soup_message_headers_set_content_type(headers, contentTypeOf(stream, kind), nullptr);
    soup_server_message_set_status(message, SOUP_STATUS_OK, nullptr);
    return;
  }
  if (responses_.size() >= options_.maxClients) {
    Client::refuse(socketOf(message).get(), ClientEvent::Limit,
                   "as many clients watch as --max-clients allows");
    soup_message_headers_replace(soup_server_message_get_response_headers(message), "Retry-After",
                                 "10");
    refuse(message, SOUP_STATUS_SERVICE_UNAVAILABLE, "as many clients as may watch do already");
    return;
  }
  responses_.emplace_back(message, stream, kind,
                          [message] { Client::noteActivity(socketOf(message).get()); });
  g_signal_connect(message, "finished", G_CALLBACK(guarded<onFinished>), this);
}

void HttpServer::onFinished(SoupServerMessage* message, gpointer self) {
  static_cast<HttpServer*>(self)->responses_.remove_if(
      [message](const StreamResponse& response) { return response.isFor(message); });
}

HttpStream* HttpServer::jpegStream() {
  const auto found = std::find_if(streams_.begin(), streams_.end(), [](const HttpStream& stream) {
    return stream.codec() == Codec::Mjpeg;
  });
  return found != streams_.end() ? &*found : nullptr;
}

void HttpServer::writeAll() {
  for (StreamResponse& response : responses_) {
    response.write();
  }
}

}  // namespace station
