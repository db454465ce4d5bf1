#pragma once

#include <functional>

#include "gst/GuardedCallback.h"

namespace station {

// Exceptions must cross neither C code that calls us back nor the end of a thread. The first one is
// kept for the command, which rethrows it and ends.
//
// Threads: any.
void keepException() noexcept;  // the one that is being handled
void throwKeptException();      // if there is one
bool hasKeptException();
// Sets a function that is called, on any thread, after an exception has been kept; null for none.
void notifyOfException(std::function<void()> call);

// `Function` as a C callback that keeps its exceptions.
template <auto Function>
constexpr auto guarded =  // NOLINT(readability-identifier-naming): it is called, like a function
    media_backend::GuardedCallback<Function, keepException>::call;

// Calls the body of a thread and keeps its exception.
template <typename Function>
void callGuarded(const Function& function) noexcept {
  try {
    function();
  } catch (...) {
    keepException();
  }
}

}  // namespace station
