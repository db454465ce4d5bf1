#pragma once

#include <exception>

#include "Debug.h"
#include "gst/GuardedCallback.h"

namespace simulated_board {

inline void logException() noexcept {
  try {
    throw;
  } catch (const std::exception& exception) {
    GST_ERROR("exception: %s", exception.what());
  } catch (...) {
    GST_ERROR("exception of an unknown type");
  }
}

// `Function` as a function of an element's class or a pad probe: an exception is logged, and the
// call fails.
template <auto Function>
constexpr auto guarded =  // NOLINT(readability-identifier-naming): it is called, like a function
    media_backend::GuardedCallback<Function, logException>::call;

}  // namespace simulated_board
