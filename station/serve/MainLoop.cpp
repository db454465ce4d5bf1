#include "serve/MainLoop.h"

#include <csignal>
#include <cstdio>

#include <glib-unix.h>

#include "base/StopSignal.h"

namespace station {

void MainLoop::run(const LiveCamera& camera, bool quiet) {
  camera_ = &camera;
  quiet_ = quiet;
  const guint interrupt = g_unix_signal_add(SIGINT, onSignal, this);
  const guint terminate = g_unix_signal_add(SIGTERM, onSignal, this);
  cameraChanged();  // it may have failed before
  g_main_loop_run(loop_);
  g_source_remove(interrupt);
  g_source_remove(terminate);
  exitOnSignal();
  camera_ = nullptr;
  if (failure_) {
    throw StationError(*failure_);
  }
}

void MainLoop::fail(const StationError& error) {
  failure_ = error;
  g_main_loop_quit(loop_);
}

gboolean MainLoop::onSignal(gpointer self) {
  g_main_loop_quit(static_cast<MainLoop*>(self)->loop_);
  return G_SOURCE_CONTINUE;
}

void MainLoop::checkCamera() {
  if (camera_ == nullptr) {
    return;
  }
  const bool running = camera_->isRunning();
  if (running != wasRunning_ && !quiet_) {
    std::fprintf(stderr, running ? "camera runs\n" : "camera sleeps\n");
  }
  wasRunning_ = running;
  if (const std::optional<StationError> failure = camera_->failure()) {
    fail(*failure);
  }
}

}  // namespace station
