#pragma once

#include <functional>

#include "gst/GuardedCallback.h"

namespace station {

// Exceptions of callbacks, which C code calls, and of threads. They end the command: the first one
// is kept until the command throws it.
//
// Threads: any.
void keepException() noexcept;  // the one that is being handled
void throwKeptException();      // if there is one
bool hasKeptException();
// Calls `call` on any thread after an exception has been kept; null ends that.
void notifyOfException(std::function<void()> call);

// `Function` as a callback.
template <auto Function>
constexpr auto guarded =  // NOLINT(readability-identifier-naming): it is called, like a function
    media_backend::GuardedCallback<Function, keepException>::call;

// Calls what a thread consists of.
template <typename Function>
void callGuarded(const Function& function) noexcept {
  try {
    function();
  } catch (...) {
    keepException();
  }
}

}  // namespace station
