#pragma once

#include <list>
#include <string>

#include <libsoup/soup.h>
#include <media_backend/GstVideoBackend.h>

#include "audio/LiveAudio.h"
#include "base/Handles.h"
#include "base/Metrics.h"
#include "camera/LiveCamera.h"
#include "http/RequestGuard.h"
#include "http/Stream.h"
#include "http/StreamResponse.h"
#include "serve/Listener.h"
#include "serve/ServeOptions.h"
#include "serve/WakeUp.h"

namespace station {

// A camera over HTTP: a page, streams, snapshots, and status as JSON and for Prometheus.
//
// Memory per client: one access unit (at most AccessUnitBuffer::kMaxAccessUnitBytes), the kernel's
// send buffer of twice 256 KiB, and the library's request, whose header is limited to 65 KB;
// request bodies are not kept. A stream has one AccessUnitBuffer.
// Threads: the main context's.
class HttpServer {
 public:
  // Begins to listen. Throws StationError (CodecNotUsable, and as Listener does). `onFailure` is
  // called with an encoder's failure (Pipeline).
  HttpServer(const media_backend::GstVideoBackend& backend, LiveCamera& camera, LiveAudio* audio,
             const ServeOptions& options, HttpStream::OnFailure onFailure);
  ~HttpServer();
  HttpServer(const HttpServer&) = delete;
  HttpServer& operator=(const HttpServer&) = delete;

  const Listener& listener() const { return listener_; }

 private:
  void addStream(media_backend::GstVideoBackend::Codec codec);
  void setUpServer();
  void accept(GSocketConnection* connection);
  void writeAll();
  void answer(SoupServerMessage* message, const std::string& path);
  bool answerText(SoupServerMessage* message, const std::string& path) const;
  bool answerStream(SoupServerMessage* message, const std::string& path);
  void serveStream(SoupServerMessage* message, HttpStream& stream, StreamResponse::Kind kind);
  HttpStream* jpegStream();

  static void onRequestStarted(SoupServer* server, SoupServerMessage* message, gpointer self);
  static void onHeaders(SoupServer* server, SoupServerMessage* message, const char* path,
                        GHashTable* query, gpointer self);
  static void onRequest(SoupServer* server, SoupServerMessage* message, const char* path,
                        GHashTable* query, gpointer self);
  static void onFinished(SoupServerMessage* message, gpointer self);

  const media_backend::GstVideoBackend& backend_;
  LiveCamera& camera_;
  LiveAudio* const audio_;
  const ServeOptions options_;
  const HttpStream::OnFailure onFailure_;
  const gint64 begin_ = g_get_monotonic_time();
  RequestGuard guard_;
  WakeUp wakeUp_;

  std::list<HttpStream> streams_;  // first the one asked for
  std::list<StreamResponse> responses_;
  const GstPtr<SoupServer> server_;
  Listener listener_;
  const Metrics::Publication metrics_;
};

}  // namespace station
