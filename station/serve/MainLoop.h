#pragma once

#include <functional>
#include <optional>
#include <string>

#include <glib.h>
#include <media_backend/GstVideoBackend.h>

#include "base/StationError.h"
#include "base/StopSignal.h"
#include "camera/LiveCamera.h"
#include "serve/Listener.h"
#include "serve/ServeOptions.h"

namespace station {

// Runs the main loop until Ctrl-C or a failure, with a look at the server ten times a second.
class ServerLoop {
 public:
  ServerLoop(const LiveCamera& camera, std::function<void()> tick)
      : camera_(camera), tick_(std::move(tick)) {}
  ~ServerLoop() { g_main_loop_unref(loop_); }
  ServerLoop(const ServerLoop&) = delete;
  ServerLoop& operator=(const ServerLoop&) = delete;

  void run();

 private:
  static gboolean onTick(gpointer self);
  void look();
  void reportCamera();

  GMainLoop* const loop_ = g_main_loop_new(nullptr, FALSE);
  const LiveCamera& camera_;
  const std::function<void()> tick_;
  const StopSignal* stop_ = nullptr;
  bool wasRunning_ = false;
  std::optional<StationError> failure_;
};

// Says what is served. `path`: of the URL, after the authority.
void announce(const char* scheme, const Listener& listener, const std::string& path,
              const media_backend::GstVideoBackend& backend, const ServeOptions& options,
              const CameraOptions& camera);

}  // namespace station
