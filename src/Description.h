#pragma once

#include <charconv>
#include <cstddef>
#include <string>
#include <string_view>
#include <type_traits>
#include <utility>

namespace media_backend {

// A pipeline description as it is written, piece after piece. Unlike a string stream it never
// groups digits as the process's locale would, and it allocates once.
class Description {
 public:
  // `expectedLength`: characters to make room for at once; a longer text still fits.
  explicit Description(std::size_t expectedLength) { text_.reserve(expectedLength); }

  Description& operator<<(std::string_view piece) {
    text_.append(piece);
    return *this;
  }

  template <typename Integer, std::enable_if_t<std::is_integral_v<Integer>, int> = 0>
  Description& operator<<(Integer number) {
    char digits[24];
    const std::to_chars_result result = std::to_chars(digits, digits + sizeof(digits), number);
    text_.append(digits, result.ptr);
    return *this;
  }

  // Writes key and value, or nothing if the value is null or empty.
  Description& optional(std::string_view key, const char* value) {
    if (value != nullptr && *value != '\0') {
      text_.append(key).append(value);
    }
    return *this;
  }

  std::string take() { return std::move(text_); }

 private:
  std::string text_;
};

}  // namespace media_backend
