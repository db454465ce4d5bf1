#pragma once

#include <gst/gst.h>

namespace media_backend {

// What a callback returns in place of an exception: zero, unless that means success.
template <typename Result>
Result failed() {
  return Result();
}
template <>
inline GstFlowReturn failed() {
  return GST_FLOW_ERROR;
}
// Not null, which has a meaning of its own.
template <>
inline gchar* failed() {
  return g_strdup("");
}

// `call` is `Function` for C code, which no exception may cross: an exception is passed to
// `report`, which finds it by `throw;`, and the call returns failed().
template <auto Function, void (*Report)() noexcept>
struct GuardedCallback;

template <typename Result, typename... Arguments, Result (*Function)(Arguments...),
          void (*Report)() noexcept>
struct GuardedCallback<Function, Report> {
  static Result call(Arguments... arguments) noexcept {
    try {
      return Function(arguments...);
    } catch (...) {
      Report();
      return failed<Result>();
    }
  }
};

}  // namespace media_backend
