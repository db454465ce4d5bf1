#pragma once

#include <chrono>
#include <functional>
#include <utility>

#include <glib.h>

#include "base/Callback.h"

namespace station {

// Calls a function on the default main context every `interval`, until it returns false or this
// object ends, which it must not do in that call.
//
// Threads: the main context's.
class Timer {
 public:
  Timer(std::chrono::milliseconds interval, std::function<bool()> call)
      : call_(std::move(call)),
        id_(g_timeout_add(static_cast<guint>(interval.count()), dispatch, this)) {}
  ~Timer() {
    if (id_ != 0) {
      g_source_remove(id_);
    }
  }
  Timer(const Timer&) = delete;
  Timer& operator=(const Timer&) = delete;

  bool isActive() const { return id_ != 0; }

 private:
  static gboolean dispatch(gpointer self) {
    auto* const timer = static_cast<Timer*>(self);
    bool again = false;
    callGuarded([&] { again = timer->call_(); });
    if (again) {
      return G_SOURCE_CONTINUE;
    }
    timer->id_ = 0;
    return G_SOURCE_REMOVE;
  }

  const std::function<bool()> call_;
  guint id_;
};

}  // namespace station
