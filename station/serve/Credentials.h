#pragma once

#include <array>
#include <optional>
#include <string>
#include <string_view>

namespace station {

// The one user who may watch. Keeps hashes alone, and compares them in constant time.
//
// Threads: immutable, any.
class Credentials {
 public:
  // Reads "USER:FILE": the password is the file's first line. Throws StationError (Usage) if there
  // is no user, no such file, or an empty password.
  static Credentials fromOption(const std::string& userAndFile);

  bool match(std::string_view user, std::string_view password) const;
  // The same for the text behind "Basic " of an Authorization header.
  bool matchBasic(const char* base64) const;

 private:
  using Hash = std::array<unsigned char, 32>;

  Credentials(std::string_view user, std::string_view password);
  static Hash hash(std::string_view text);

  Hash user_;
  Hash password_;
};

}  // namespace station
