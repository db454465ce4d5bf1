#pragma once

#include <string>
#include <string_view>

#include <gst/gst.h>

// A buffer with a copy of the bytes, which the caller owns.
inline GstBuffer* bufferOf(std::string_view bytes) {
  GstBuffer* const buffer = gst_buffer_new_allocate(nullptr, bytes.size(), nullptr);
  gst_buffer_fill(buffer, 0, bytes.data(), bytes.size());
  return buffer;
}

inline std::string bytesOf(GstBuffer* buffer) {
  std::string bytes(gst_buffer_get_size(buffer), '\0');
  gst_buffer_extract(buffer, 0, bytes.data(), bytes.size());
  return bytes;
}
