#pragma once

#include <functional>
#include <utility>

#include <glib.h>

#include "base/Callback.h"

namespace station {

// Calls a function on the default main context after signal(); signals before that call are one.
//
// Threads: the main context's; signal() any.
class WakeUp {
 public:
  explicit WakeUp(std::function<void()> call) : call_(std::move(call)) {
    static GSourceFuncs functions = {nullptr, nullptr, dispatch, nullptr, nullptr, nullptr};
    source_ = g_source_new(&functions, sizeof(GSource));
    g_source_set_callback(source_, nullptr, this, nullptr);
    g_source_attach(source_, nullptr);
  }
  ~WakeUp() {
    g_source_destroy(source_);
    g_source_unref(source_);
  }
  WakeUp(const WakeUp&) = delete;
  WakeUp& operator=(const WakeUp&) = delete;

  void signal() { g_source_set_ready_time(source_, 0); }

 private:
  static gboolean dispatch(GSource* source, GSourceFunc /*callback*/, gpointer self) {
    g_source_set_ready_time(source, -1);
    callGuarded(static_cast<WakeUp*>(self)->call_);
    return G_SOURCE_CONTINUE;
  }

  const std::function<void()> call_;
  GSource* source_;
};

}  // namespace station
