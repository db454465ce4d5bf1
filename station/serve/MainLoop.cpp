#include "serve/MainLoop.h"

#include <cstdio>
#include <vector>

#include <glib-unix.h>

#include "base/Callback.h"
#include "base/StopSignal.h"

namespace station {

void MainLoop::run(const LiveCamera& camera, bool quiet) {
  camera_ = &camera;
  quiet_ = quiet;
  std::vector<guint> signals;
  for (const int number : stopSignals()) {
    signals.push_back(g_unix_signal_add(number, onSignal, this));
  }
  notifyOfException([this] { cameraChanged(); });
  cameraChanged();  // it may have failed before
  g_main_loop_run(loop_);
  notifyOfException(nullptr);
  for (const guint source : signals) {
    g_source_remove(source);
  }
  exitOnSignal();
  camera_ = nullptr;
  throwKeptException();
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
  if (hasKeptException()) {
    g_main_loop_quit(loop_);
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
