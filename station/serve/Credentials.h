#pragma once

#include <array>
#include <optional>
#include <string>
#include <string_view>

namespace station {

// The user and password that clients need. Keeps only hashes, and compares them in constant time.
//
// Threads: immutable, any.
class Credentials {
 public:
  // Of "USER:FILE"; the password is the file's first line. Throws StationError (Usage) without a
  // user, a readable file or a password.
  static Credentials fromOption(const std::string& userAndFile);

  bool match(std::string_view user, std::string_view password) const;
  // Of an Authorization header, the text after "Basic ".
  bool matchBasic(const char* base64) const;

 private:
  using Hash = std::array<unsigned char, 32>;

  Credentials(std::string_view user, std::string_view password);
  static Hash hash(std::string_view text);

  Hash user_;
  Hash password_;
};

}  // namespace station
