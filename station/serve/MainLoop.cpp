#include "serve/MainLoop.h"

#include <cstdio>

namespace station {
namespace {

using media_backend::GstVideoBackend;

constexpr guint kTickMilliseconds = 100;

}  // namespace

void ServerLoop::run() {
  const StopSignal stop;
  stop_ = &stop;
  const guint timer = g_timeout_add(kTickMilliseconds, onTick, this);
  g_main_loop_run(loop_);
  g_source_remove(timer);
  if (failure_) {
    throw StationError(*failure_);
  }
}

gboolean ServerLoop::onTick(gpointer self) {
  static_cast<ServerLoop*>(self)->look();
  return G_SOURCE_CONTINUE;
}

void ServerLoop::look() {
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

void ServerLoop::reportCamera() {
  const bool running = camera_.isRunning();
  if (running != wasRunning_) {
    std::fprintf(stderr, running ? "camera runs\n" : "camera sleeps\n");
    wasRunning_ = running;
  }
}

void announce(const char* scheme, const Listener& listener, const std::string& path,
              const GstVideoBackend& backend, const ServeOptions& options,
              const CameraOptions& camera) {
  std::printf("serving %s://%s%s  %s %u x %u, %u frames per second, %s\n", scheme,
              listener.authority().c_str(), path.c_str(),
              GstVideoBackend::codecName(options.encoder.codec), camera.width, camera.height,
              camera.fps, backend.name());
  std::fflush(stdout);
  if (!listener.isLoopback() && !options.credentials) {
    std::fprintf(stderr,
                 "note: whoever reaches this address can watch; --auth asks for a password\n");
  }
}

}  // namespace station
