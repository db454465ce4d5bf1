#pragma once

#include <map>
#include <string>
#include <string_view>

namespace station {

// MD5 as 32 hexadecimal digits.
std::string md5(const std::string& text);

// The users that may come in, each with one of two hashes: that of user, realm and password, which
// digest authentication computes with and htdigest writes, or a slow one for basic authentication,
// which htpasswd -B or mkpasswd writes.
//
// Threads: immutable, any.
class Credentials {
 public:
  static constexpr const char* kRealm = "media-station";

  // Of "USER:FILE", whose first line is the password, or "FILE" with a line for each user,
  // "user:media-station:hash" or "user:$hash of crypt(5)", and any lines of other realms. Warns on
  // standard error if others may read the file. Throws StationError (Usage) without a user and a
  // password.
  static Credentials fromOption(const std::string& option);

  // Whether the users differ in the authentication that they can use: digest, or only basic.
  bool hasDigestUsers() const { return !hashes_.empty(); }
  bool hasBasicUsers() const { return !slowHashes_.empty(); }

  // Of an Authorization header, the text after "Basic ". Takes as long as the user's hash does.
  bool matchBasic(const char* base64) const;
  // Whether a digest's response is md5("hash of the user:rest").
  bool matchDigest(const std::string& user, const std::string& rest,
                   const std::string& response) const;

 private:
  void readHashes(const std::string& file);

  std::map<std::string, std::string> hashes_;      // by user
  std::map<std::string, std::string> slowHashes_;  // by user
};

}  // namespace station
