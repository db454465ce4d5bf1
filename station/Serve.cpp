#include "Serve.h"

#include <cstdio>
#include <functional>

#include <glib.h>

#include "HttpServer.h"
#include "LiveCamera.h"
#include "RtspServer.h"
#include "StopSignal.h"

namespace station {
namespace {

using media_backend::GstVideoBackend;

constexpr guint kTickMilliseconds = 100;

// Runs the main loop until Ctrl-C or a failure, with a look at the server ten times a second.
class ServerLoop {
 public:
  ServerLoop(const LiveCamera& camera, std::function<void()> tick)
      : camera_(camera), tick_(std::move(tick)) {}
  ~ServerLoop() { g_main_loop_unref(loop_); }
  ServerLoop(const ServerLoop&) = delete;
  ServerLoop& operator=(const ServerLoop&) = delete;

  void run() {
    const StopSignal stop;
    stop_ = &stop;
    const guint timer = g_timeout_add(kTickMilliseconds, onTick, this);
    g_main_loop_run(loop_);
    g_source_remove(timer);
    if (failure_) {
      throw StationError(*failure_);
    }
  }

 private:
  static gboolean onTick(gpointer self) {
    static_cast<ServerLoop*>(self)->look();
    return G_SOURCE_CONTINUE;
  }

  void look() {
    try {
      tick_();
      failure_ = camera_.failure();
    } catch (const StationError& error) {
      failure_ = error;
    }
    reportCamera();
    if (failure_ || stop_->requested()) {
      g_main_loop_quit(loop_);
    }
  }

  void reportCamera() {
    const bool running = camera_.isRunning();
    if (running != wasRunning_) {
      std::fprintf(stderr, running ? "camera runs\n" : "camera sleeps\n");
      wasRunning_ = running;
    }
  }

  GMainLoop* const loop_ = g_main_loop_new(nullptr, FALSE);
  const LiveCamera& camera_;
  const std::function<void()> tick_;
  const StopSignal* stop_ = nullptr;
  bool wasRunning_ = false;
  std::optional<StationError> failure_;
};

void announce(const std::string& url, bool open, const GstVideoBackend& backend,
              const ServeOptions& options, const CameraOptions& camera) {
  std::printf("serving %s  %s %u x %u, %u frames per second, %s\n", url.c_str(),
              GstVideoBackend::codecName(options.encoder.codec), camera.width, camera.height,
              camera.fps, backend.name());
  std::fflush(stdout);
  if (open) {
    std::fprintf(stderr,
                 "note: whoever reaches this address can watch; --auth asks for a password\n");
  }
}

}  // namespace

void serveRtsp(const GstVideoBackend& backend, const ServeOptions& options) {
  LiveCamera camera(Camera::open(options.camera));
  RtspServer server(backend, camera, options);
  announce("rtsp://" + server.listener().authority() + options.path,
           !server.listener().isLoopback() && !options.credentials, backend, options,
           camera.options());
  ServerLoop(camera, [&server] { server.tick(); }).run();
}

void serveHttp(const GstVideoBackend& backend, const ServeOptions& options) {
  LiveCamera camera(Camera::open(options.camera));
  HttpServer server(backend, camera, options);
  announce("http://" + server.listener().authority() + "/",
           !server.listener().isLoopback() && !options.credentials, backend, options,
           camera.options());
  ServerLoop(camera, [&server] { server.tick(); }).run();
}

}  // namespace station
