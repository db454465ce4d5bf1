#pragma once

#include <cstdint>
#include <list>
#include <memory>
#include <optional>
#include <string>

#include <libsoup/soup.h>
#include <media_backend/GstVideoBackend.h>

#include "base/GstPtr.h"
#include "base/StationError.h"
#include "camera/LiveCamera.h"
#include "http/Stream.h"
#include "http/StreamResponse.h"
#include "http/WakeUp.h"
#include "serve/Listener.h"
#include "serve/ServeOptions.h"

namespace station {

// A camera over HTTP: a page, streams, snapshots, and figures for people and for Prometheus.
//
// Memory per client: one picture (at most PictureRing::kMaxPictureBytes), the kernel's send buffer
// of twice 256 KiB, and the library's request, whose header is limited to 100 KiB; request bodies
// are not kept. The pictures of a stream are there once, in its PictureRing.
// Threads: made, used and ended on that of the default main context.
class HttpServer {
 public:
  // Listens from now on; throws StationError (CodecNotUsable, and as Listener does).
  HttpServer(const media_backend::GstVideoBackend& backend, LiveCamera& camera,
             const ServeOptions& options);
  ~HttpServer();
  HttpServer(const HttpServer&) = delete;
  HttpServer& operator=(const HttpServer&) = delete;

  const Listener& listener() const { return listener_; }

  // To be called a few times a second. Throws StationError (Pipeline) if an encoder has failed.
  void tick();

 private:
  void addStream(media_backend::GstVideoBackend::Codec codec);
  void setUpServer();
  void accept(GSocketConnection* connection);
  void pumpAll();
  void answer(SoupServerMessage* message, const std::string& path);
  bool answerText(SoupServerMessage* message, const std::string& path) const;
  bool answerPictures(SoupServerMessage* message, const std::string& path);
  void watch(SoupServerMessage* message, HttpStream& stream, HttpViewer::Kind kind);
  HttpStream* jpegStream();
  std::string statusJson() const;
  std::string metrics() const;

  static void onRequestStarted(SoupServer* server, SoupServerMessage* message, gpointer self);
  static void onHeaders(SoupServer* server, SoupServerMessage* message, const char* path,
                        GHashTable* query, gpointer self);
  static void onRequest(SoupServer* server, SoupServerMessage* message, const char* path,
                        GHashTable* query, gpointer self);
  static void onFinished(SoupServerMessage* message, gpointer self);
  static gboolean onPassword(SoupAuthDomain* domain, SoupServerMessage* message, const char* user,
                             const char* password, gpointer self);

  const media_backend::GstVideoBackend& backend_;
  LiveCamera& camera_;
  const ServeOptions options_;
  const gint64 begin_ = g_get_monotonic_time();
  WakeUp wakeUp_;

  std::list<HttpStream> streams_;  // first the one asked for
  std::list<HttpViewer> viewers_;
  std::optional<StationError> failure_;
  const GstPtr<SoupServer> server_;
  Listener listener_;
};

}  // namespace station
