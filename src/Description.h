#pragma once

#include <charconv>
#include <cstddef>
#include <cstring>
#include <string>
#include <string_view>
#include <type_traits>
#include <utility>

namespace media_backend {

// Builder of a pipeline description. Unlike a string stream it ignores the locale, which may group
// digits, and allocates once. Pieces are copied inline, since most lengths are compile-time
// constants; std::string::append() is a call per piece.
class Description {
 public:
  // `expectedLength`: characters to allocate at first; longer texts reallocate.
  explicit Description(std::size_t expectedLength) : text_(expectedLength, '\0') {}

  Description& operator<<(std::string_view piece) {
    if (piece.size() > text_.size() - length_) {
      text_.resize(2 * text_.size() + piece.size());
    }
    std::memcpy(text_.data() + length_, piece.data(), piece.size());
    length_ += piece.size();
    return *this;
  }

  template <typename Integer, std::enable_if_t<std::is_integral_v<Integer>, int> = 0>
  Description& operator<<(Integer number) {
    char digits[24];
    const std::to_chars_result result = std::to_chars(digits, digits + sizeof(digits), number);
    return *this << std::string_view(digits, static_cast<std::size_t>(result.ptr - digits));
  }

  // Appends key and value, or nothing if the value is null or empty.
  Description& optional(std::string_view key, const char* value) {
    if (value != nullptr && *value != '\0') {
      *this << key << value;
    }
    return *this;
  }

  std::string take() {
    text_.resize(length_);
    return std::move(text_);
  }

 private:
  std::string text_;
  std::size_t length_ = 0;
};

}  // namespace media_backend
