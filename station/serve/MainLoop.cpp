#include "serve/MainLoop.h"

#include <csignal>
#include <cstdio>
#include <utility>

#include <glib-unix.h>

#include "base/Callback.h"
#include "base/StopSignal.h"

namespace station {

MainLoop::~MainLoop() {
  for (const guint source : {signals_, hangUps_}) {
    if (source != 0) {
      g_source_remove(source);
    }
  }
  g_main_loop_unref(loop_);
}

void MainLoop::watchSignals(std::function<void()> onHangUp) {
  onHangUp_ = std::move(onHangUp);
  signals_ = g_unix_fd_add(watchStopSignals(onHangUp_ == nullptr), G_IO_IN, onSignal, this);
  if (onHangUp_) {
    hangUps_ = g_unix_signal_add(SIGHUP, MainLoop::onHangUp, this);
  }
}

void MainLoop::run(const LiveCamera& camera, bool quiet) {
  camera_ = &camera;
  quiet_ = quiet;
  notifyOfException([this] { cameraChanged(); });
  cameraChanged();  // it may have failed before
  g_main_loop_run(loop_);
  notifyOfException(nullptr);
  camera_ = nullptr;
  isEnded_ = false;
  throwKeptException();
  if (failure_) {
    throw StationError(*failure_);
  }
}

void MainLoop::end() {
  isEnded_ = true;
  wakeUp_.signal();
}

void MainLoop::fail(const StationError& error) {
  failure_ = error;
  g_main_loop_quit(loop_);
}

gboolean MainLoop::onHangUp(gpointer self) {
  const auto* const loop = static_cast<MainLoop*>(self);
  if (loop->camera_ != nullptr) {
    callGuarded(loop->onHangUp_);
  }
  return G_SOURCE_CONTINUE;
}

gboolean MainLoop::onSignal(gint /*descriptor*/, GIOCondition /*condition*/, gpointer self) {
  auto* const loop = static_cast<MainLoop*>(self);
  loop->signals_ = 0;
  g_main_loop_quit(loop->loop_);
  return G_SOURCE_REMOVE;
}

void MainLoop::checkCamera() {
  if (camera_ == nullptr) {
    return;
  }
  if (hasKeptException() || isEnded_ || camera_->hasEnded()) {
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
