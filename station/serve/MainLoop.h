#pragma once

#include <atomic>
#include <functional>
#include <optional>

#include <glib.h>

#include "base/StationError.h"
#include "camera/LiveCamera.h"
#include "serve/WakeUp.h"

namespace station {

// The default main context's loop, until Ctrl-C, a failure or the end of the work.
//
// Threads: the main context's; cameraChanged() and end() any.
class MainLoop {
 public:
  MainLoop() = default;
  ~MainLoop();
  MainLoop(const MainLoop&) = delete;
  MainLoop& operator=(const MainLoop&) = delete;

  // From this call on, the first of the signals SIGINT (Ctrl-C), SIGTERM and SIGHUP ends run(), the
  // second the process with exit code 130; with `onHangUp`, SIGHUP calls that while run() runs. To
  // be called once.
  void watchSignals(std::function<void()> onHangUp = nullptr);

  // Returns after a signal, after end(), which may have been called before, or when the camera has
  // ended. Throws the failure of the camera, of fail() or of a callback. Logs when the camera
  // starts and stops, unless `quiet`.
  void run(const LiveCamera& camera, bool quiet);

  void cameraChanged() { wakeUp_.signal(); }
  void end();
  void fail(const StationError& error);

 private:
  void checkCamera();
  static gboolean onHangUp(gpointer self);
  static gboolean onSignal(gint descriptor, GIOCondition condition, gpointer self);

  GMainLoop* const loop_ = g_main_loop_new(nullptr, FALSE);
  guint signals_ = 0;  // source that waits for them
  guint hangUps_ = 0;  // likewise
  std::function<void()> onHangUp_;
  std::atomic<bool> isEnded_{false};
  WakeUp wakeUp_{[this] { checkCamera(); }};
  const LiveCamera* camera_ = nullptr;  // while run() runs
  bool quiet_ = false;
  bool wasRunning_ = false;
  std::optional<StationError> failure_;
};

}  // namespace station
