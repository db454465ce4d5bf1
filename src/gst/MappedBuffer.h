#pragma once

#include <cstddef>
#include <cstdint>
#include <string_view>

#include <gst/gst.h>

namespace media_backend {

// A buffer mapped for reading until this object is destroyed. The buffer is borrowed. False if it
// cannot be mapped; its bytes are empty then.
class MappedBuffer {
 public:
  explicit MappedBuffer(GstBuffer* buffer)
      : buffer_(buffer), mapped_(gst_buffer_map(buffer, &info_, GST_MAP_READ) != FALSE) {}
  ~MappedBuffer() {
    if (mapped_) {
      gst_buffer_unmap(buffer_, &info_);
    }
  }
  MappedBuffer(const MappedBuffer&) = delete;
  MappedBuffer& operator=(const MappedBuffer&) = delete;

  explicit operator bool() const { return mapped_; }
  GstBuffer* buffer() const { return buffer_; }
  const std::uint8_t* data() const { return info_.data; }
  std::size_t size() const { return info_.size; }
  std::string_view bytes() const { return {reinterpret_cast<const char*>(data()), size()}; }

 private:
  GstBuffer* buffer_;
  GstMapInfo info_ = GST_MAP_INFO_INIT;  // before mapped_, whose initialiser fills it
  bool mapped_;
};

}  // namespace media_backend
