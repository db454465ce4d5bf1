#pragma once

#include <map>
#include <string>
#include <string_view>

namespace station {

// MD5 as 32 hexadecimal digits.
std::string md5(const std::string& text);

// The users that may come in. Keeps the hash of user, realm and password that digest authentication
// computes with, which is what htdigest writes.
//
// Threads: immutable, any.
class Credentials {
 public:
  static constexpr const char* kRealm = "media-station";

  // Of "USER:FILE", whose first line is the password, or "FILE", as htdigest writes it: a line
  // "user:media-station:hash" for each user, and any lines of other realms. Warns on standard error
  // if others may read the file. Throws StationError (Usage) without a user and a password.
  static Credentials fromOption(const std::string& option);

  // Of an Authorization header, the text after "Basic ".
  bool matchBasic(const char* base64) const;
  // Whether a digest's response is md5("hash of the user:rest").
  bool matchDigest(const std::string& user, const std::string& rest,
                   const std::string& response) const;

 private:
  std::map<std::string, std::string> hashes_;  // by user
};

}  // namespace station
