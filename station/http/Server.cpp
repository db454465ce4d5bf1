#include "http/Server.h"

#include <algorithm>
#include <cstdio>
#include <utility>

#include <gio/gio.h>
#include <nlohmann/json.hpp>

#include "base/WeakReference.h"
#include "http/RequestFilter.h"

namespace station {
namespace {

using media_backend::GstVideoBackend;
using Codec = GstVideoBackend::Codec;

constexpr std::chrono::seconds kIdle{30};
constexpr guint kRequestSeconds = 10;  // that a client has to send a whole request
// A viewer's browser needs a few connections: for the page, its picture and its figures.
constexpr unsigned int kConnectionsPerClient = 2;
constexpr unsigned int kMoreConnections = 16;

constexpr const char* kHeaders[][2] = {
    {"Cache-Control", "no-store"},
    {"Content-Security-Policy", "default-src 'self'"},
    {"Cross-Origin-Resource-Policy", "same-origin"},
    {"X-Content-Type-Options", "nosniff"},
};

// The page's files as they are compiled in.
struct PageFile {
  const char* path;
  const char* resource;
  const char* contentType;
};

constexpr PageFile kPageFiles[] = {
    {"/", "/station/index.html", "text/html; charset=utf-8"},
    {"/page.css", "/station/page.css", "text/css; charset=utf-8"},
    {"/page.js", "/station/page.js", "text/javascript; charset=utf-8"},
    {"/icon.svg", "/station/icon.svg", "image/svg+xml"},
};

void respond(SoupServerMessage* message, const char* contentType, const std::string& text) {
  soup_server_message_set_status(message, SOUP_STATUS_OK, nullptr);
  soup_server_message_set_response(message, contentType, SOUP_MEMORY_COPY, text.data(),
                                   text.size());
}

void refuse(SoupServerMessage* message, SoupStatus status, const std::string& reason) {
  const std::string line = reason + "\n";
  soup_server_message_set_status(message, status, nullptr);
  soup_server_message_set_response(message, "text/plain; charset=utf-8", SOUP_MEMORY_COPY,
                                   line.data(), line.size());
}

std::string resource(const char* path) {
  g_autoptr(GBytes) bytes = g_resources_lookup_data(path, G_RESOURCE_LOOKUP_FLAGS_NONE, nullptr);
  gsize size = 0;
  const gconstpointer data = g_bytes_get_data(bytes, &size);
  return {static_cast<const char*>(data), size};
}

// What a client's address holds: a message knows no socket of a connection that was accepted for
// it.
constexpr const char* kSocket = "station-socket";

// A request that is not whole by now never will be.
gboolean onDeadline(gpointer message) {
  GSocketAddress* const client =
      soup_server_message_get_remote_address(SOUP_SERVER_MESSAGE(message));
  if (client == nullptr) {
    return G_SOURCE_REMOVE;
  }
  const GstPtr<GSocket> socket(
      static_cast<GSocket*>(WeakReference::get(g_object_get_data(G_OBJECT(client), kSocket))));
  if (socket != nullptr) {
    g_socket_shutdown(socket.get(), TRUE, TRUE, nullptr);
  }
  return G_SOURCE_REMOVE;
}

void dropSource(gpointer source) {
  g_source_destroy(static_cast<GSource*>(source));
  g_source_unref(static_cast<GSource*>(source));
}

}  // namespace

HttpServer::HttpServer(const GstVideoBackend& backend, LiveCamera& camera,
                       const ServeOptions& options)
    : backend_(backend),
      camera_(camera),
      options_(options),
      wakeUp_([this] { pumpAll(); }),
      server_(soup_server_new("server-header", "media-station", nullptr)),
      listener_(options.address, options.port,
                {kConnectionsPerClient * options.maxClients + kMoreConnections, kIdle},
                [this](GSocketConnection* connection) { accept(connection); }) {
  addStream(options.encoder.codec);
  // Browsers show nothing else, and snapshots are made of it.
  if (options.encoder.codec != Codec::Mjpeg && backend.supports(Codec::Mjpeg)) {
    addStream(Codec::Mjpeg);
  }
  setUpServer();
}

HttpServer::~HttpServer() {
  viewers_.clear();
  soup_server_disconnect(server_.get());
}

void HttpServer::addStream(Codec codec) {
  GstVideoBackend::EncoderConfig config = options_.encoder;
  config.codec = codec;
  streams_.emplace_back(backend_, camera_, config, [this] { wakeUp_.signal(); });
}

void HttpServer::setUpServer() {
  g_signal_connect(server_.get(), "request-started", G_CALLBACK(onRequestStarted), this);
  soup_server_add_early_handler(server_.get(), nullptr, onHeaders, this, nullptr);
  soup_server_add_handler(server_.get(), nullptr, onRequest, this, nullptr);
  if (options_.credentials) {
    const GstPtr<SoupAuthDomain> domain(
        soup_auth_domain_basic_new("realm", "media-station", nullptr));
    soup_auth_domain_basic_set_auth_callback(domain.get(), onPassword, this, nullptr);
    soup_auth_domain_add_path(domain.get(), "/");
    soup_server_add_auth_domain(server_.get(), domain.get());
  }
}

gboolean HttpServer::onPassword(SoupAuthDomain* /*domain*/, SoupServerMessage* /*message*/,
                                const char* user, const char* password, gpointer self) {
  return static_cast<HttpServer*>(self)->options_.credentials->match(user, password) ? TRUE : FALSE;
}

void HttpServer::accept(GSocketConnection* connection) {
  g_autoptr(GSocketAddress) local = g_socket_connection_get_local_address(connection, nullptr);
  g_autoptr(GSocketAddress) remote = g_socket_connection_get_remote_address(connection, nullptr);
  if (local == nullptr || remote == nullptr) {
    return;  // gone already, which the server library would complain about
  }
  // Weak, as the socket itself holds its client's address.
  g_object_set_data_full(G_OBJECT(remote), kSocket,
                         new WeakReference(g_socket_connection_get_socket(connection)),
                         WeakReference::drop);
  g_autoptr(GIOStream) stream = filterHttpRequests(connection);
  soup_server_accept_iostream(server_.get(), stream, local, remote, nullptr);
}

void HttpServer::onRequestStarted(SoupServer* /*server*/, SoupServerMessage* message,
                                  gpointer /*self*/) {
  GSource* const deadline = g_timeout_source_new_seconds(kRequestSeconds);
  g_source_set_callback(deadline, onDeadline, message, nullptr);
  g_source_attach(deadline, nullptr);
  g_object_set_data_full(G_OBJECT(message), "request-deadline", deadline, dropSource);
}

void HttpServer::onHeaders(SoupServer* /*server*/, SoupServerMessage* message, const char* /*path*/,
                           GHashTable* /*query*/, gpointer /*self*/) {
  soup_message_body_set_accumulate(soup_server_message_get_request_body(message), FALSE);
  SoupMessageHeaders* const headers = soup_server_message_get_response_headers(message);
  for (const auto& [name, value] : kHeaders) {
    soup_message_headers_replace(headers, name, value);
  }
  const std::string method = soup_server_message_get_method(message);
  if (method != "GET" && method != "HEAD") {
    soup_message_headers_replace(headers, "Allow", "GET, HEAD");
    soup_message_headers_replace(headers, "Connection", "close");
    refuse(message, SOUP_STATUS_METHOD_NOT_ALLOWED, "only GET and HEAD");
  }
}

void HttpServer::onRequest(SoupServer* /*server*/, SoupServerMessage* message, const char* path,
                           GHashTable* /*query*/, gpointer self) {
  g_object_set_data(G_OBJECT(message), "request-deadline", nullptr);
  auto* const server = static_cast<HttpServer*>(self);
  try {
    server->answer(message, path);
  } catch (const StationError& error) {
    server->failure_ = error;
    refuse(message, SOUP_STATUS_INTERNAL_SERVER_ERROR, "the encoder does not start");
  }
}

void HttpServer::answer(SoupServerMessage* message, const std::string& path) {
  if (!answerText(message, path) && !answerPictures(message, path)) {
    refuse(message, SOUP_STATUS_NOT_FOUND, "nothing is served at this path");
  }
}

bool HttpServer::answerText(SoupServerMessage* message, const std::string& path) const {
  if (path == "/status.json") {
    respond(message, "application/json", statusJson());
    return true;
  }
  if (path == "/metrics") {
    respond(message, "text/plain; version=0.0.4; charset=utf-8", metrics());
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

bool HttpServer::answerPictures(SoupServerMessage* message, const std::string& path) {
  if (path == "/snapshot.jpg") {
    HttpStream* const jpeg = jpegStream();
    if (jpeg == nullptr) {
      refuse(message, SOUP_STATUS_NOT_FOUND, "this board has no JPEG encoder");
    } else {
      watch(message, *jpeg, HttpViewer::Kind::Snapshot);
    }
    return true;
  }
  for (HttpStream& stream : streams_) {
    if (path == stream.path()) {
      watch(message, stream, HttpViewer::Kind::Stream);
      return true;
    }
  }
  return false;
}

void HttpServer::watch(SoupServerMessage* message, HttpStream& stream, HttpViewer::Kind kind) {
  if (std::string(soup_server_message_get_method(message)) == "HEAD") {
    // A length that nobody knows yet.
    SoupMessageHeaders* const headers = soup_server_message_get_response_headers(message);
    soup_message_headers_set_encoding(headers, SOUP_ENCODING_CHUNKED);
    soup_message_headers_set_content_type(
        headers, kind == HttpViewer::Kind::Snapshot ? "image/jpeg" : stream.contentType(), nullptr);
    soup_server_message_set_status(message, SOUP_STATUS_OK, nullptr);
    return;
  }
  if (viewers_.size() >= options_.maxClients) {
    soup_message_headers_replace(soup_server_message_get_response_headers(message), "Retry-After",
                                 "10");
    refuse(message, SOUP_STATUS_SERVICE_UNAVAILABLE, "as many clients as may watch do already");
    return;
  }
  viewers_.emplace_back(message, stream, kind);
  g_signal_connect(message, "finished", G_CALLBACK(onFinished), this);
}

void HttpServer::onFinished(SoupServerMessage* message, gpointer self) {
  auto& viewers = static_cast<HttpServer*>(self)->viewers_;
  viewers.remove_if([message](const HttpViewer& viewer) { return viewer.isAnsweredBy(message); });
}

HttpStream* HttpServer::jpegStream() {
  const auto found = std::find_if(streams_.begin(), streams_.end(), [](const HttpStream& stream) {
    return stream.codec() == Codec::Mjpeg;
  });
  return found != streams_.end() ? &*found : nullptr;
}

void HttpServer::pumpAll() {
  for (HttpViewer& viewer : viewers_) {
    viewer.pump();
  }
}

void HttpServer::tick() {
  if (failure_) {
    throw StationError(*failure_);
  }
  for (HttpStream& stream : streams_) {
    stream.tick();
  }
  for (HttpViewer& viewer : viewers_) {
    viewer.tick();
  }
}

std::string HttpServer::statusJson() const {
  nlohmann::ordered_json status;
  status["profile"] = backend_.name();
  const CameraOptions& camera = camera_.options();
  status["source"] = camera.source;
  status["width"] = camera.width;
  status["height"] = camera.height;
  status["fps"] = camera.fps;
  status["codec"] = GstVideoBackend::codecName(options_.encoder.codec);
  status["uptime_seconds"] = (g_get_monotonic_time() - begin_) / G_USEC_PER_SEC;
  status["camera_frames"] = camera_.frames();
  status["connections"] = listener_.connections();
  status["max_clients"] = options_.maxClients;
  status["streams"] = nlohmann::ordered_json::array();
  for (const HttpStream& stream : streams_) {
    const HttpStream::Counts counts = stream.counts();
    const HttpStream::Rates rates = stream.rates();
    status["streams"].push_back({{"codec", GstVideoBackend::codecName(stream.codec())},
                                 {"path", stream.path()},
                                 {"running", stream.isRunning()},
                                 {"viewers", stream.viewers()},
                                 {"frame_rate", rates.picturesPerSecond},
                                 {"bit_rate", rates.bitsPerSecond},
                                 {"frames", counts.pictures},
                                 {"bytes", counts.bytes},
                                 {"skipped", counts.skipped},
                                 {"oversized", counts.oversized}});
  }
  return status.dump(2) + "\n";
}

std::string HttpServer::metrics() const {
  std::string text;
  const auto describe = [&text](const std::string& name, const char* type, const char* help) {
    text += "# HELP " + name + " " + help + "\n# TYPE " + name + " " + type + "\n";
  };
  const auto whole = [&](const std::string& name, const char* type, const char* help,
                         std::uint64_t value) {
    describe(name, type, help);
    text += name + " " + std::to_string(value) + "\n";
  };
  const auto each = [&](const std::string& name, const char* type, const char* help,
                        const auto& valueOf) {
    describe(name, type, help);
    for (const HttpStream& stream : streams_) {
      text += name + "{codec=\"" + GstVideoBackend::codecName(stream.codec()) + "\"} " +
              std::to_string(valueOf(stream)) + "\n";
    }
  };
  using Stream = HttpStream;
  whole("media_station_camera_frames_total", "counter", "Frames that the camera gave.",
        camera_.frames());
  whole("media_station_connections", "gauge", "Open connections.", listener_.connections());
  each("media_station_viewers", "gauge", "Clients that watch.",
       [](const Stream& stream) { return stream.viewers(); });
  each("media_station_encoded_frames_total", "counter", "Frames that came out of the encoder.",
       [](const Stream& stream) { return stream.counts().pictures; });
  each("media_station_encoded_bytes_total", "counter", "Bytes that came out of the encoder.",
       [](const Stream& stream) { return stream.counts().bytes; });
  each("media_station_skipped_frames_total", "counter", "Frames that clients were too slow for.",
       [](const Stream& stream) { return stream.counts().skipped; });
  each("media_station_oversized_frames_total", "counter", "Frames too large to be sent.",
       [](const Stream& stream) { return stream.counts().oversized; });
  return text;
}

}  // namespace station
