#pragma once

#include <optional>

#include <glib.h>

#include "base/StationError.h"
#include "camera/LiveCamera.h"
#include "serve/WakeUp.h"

namespace station {

// The default main context's loop, until Ctrl-C or a failure.
//
// Threads: the main context's; cameraChanged() any.
class MainLoop {
 public:
  MainLoop() = default;
  ~MainLoop() { g_main_loop_unref(loop_); }
  MainLoop(const MainLoop&) = delete;
  MainLoop& operator=(const MainLoop&) = delete;

  // Returns after Ctrl-C, SIGTERM or SIGHUP; a second signal ends the process with exit code 130.
  // Throws the failure of the camera, of fail() or of a callback. Logs when the camera starts and
  // stops, unless `quiet`.
  void run(const LiveCamera& camera, bool quiet);

  void cameraChanged() { wakeUp_.signal(); }
  void fail(const StationError& error);

 private:
  void checkCamera();
  static gboolean onSignal(gpointer self);

  GMainLoop* const loop_ = g_main_loop_new(nullptr, FALSE);
  WakeUp wakeUp_{[this] { checkCamera(); }};
  const LiveCamera* camera_ = nullptr;  // while run() runs
  bool quiet_ = false;
  bool wasRunning_ = false;
  std::optional<StationError> failure_;
};

}  // namespace station
