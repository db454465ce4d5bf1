#pragma once

#include <cstdint>
#include <map>
#include <mutex>
#include <string>
#include <vector>

#include <gio/gio.h>

#include "serve/Credentials.h"
#include "serve/GuessLimit.h"

namespace station {

// Admits requests with a user's password: by digest authentication (RFC 7616), over an encrypted
// transport also by basic authentication. Logs wrong passwords and limits them per address.
//
// A digest is valid from its client's address, for five minutes after the challenge, and longer on
// a connection that has used it. Players know no other algorithm than MD5.
//
// Threads: any.
class Authenticator {
 public:
  enum class Protocol { Http, Rtsp };

  struct Request {
    GSocket* socket;            // the client's; may be null
    std::string address;        // the client's
    const char* authorization;  // value of that header; null without one
    const char* method;
    const char* target;  // path and query, compared with the digest's; null if players vary it
  };
  struct Verdict {
    bool isAdmitted;
    // Values of WWW-Authenticate; none after too many wrong passwords.
    std::vector<std::string> challenges;
  };

  // Seconds until the next guess after too many.
  static constexpr const char* kRetryAfter = "10";

  // Throws StationError (Usage) if no user can come in.
  Authenticator(Credentials credentials, Protocol protocol, bool isEncrypted);

  Verdict check(const Request& request);

 private:
  enum class Result { Admitted, NoPassword, Wrong, Stale };
  // Of an Authorization header.
  struct Answer {
    Result result;
    std::string proof;  // who knows it, knows a password if another request has shown so
  };

  static constexpr std::size_t kMaxProofs = 1024;

  Answer judge(const Request& request, bool mayGuess) const;
  Answer judgeDigest(const Request& request, const char* parameters) const;
  bool isOwnNonce(const std::string& nonce, const std::string& address) const;
  bool isProven(const std::string& proof) const;
  void addProof(const std::string& proof);
  std::string makeNonce(const std::string& begin, const std::string& address) const;
  std::vector<std::string> challenges(const std::string& address, bool isStale);

  const Credentials credentials_;
  const Protocol protocol_;
  const bool isEncrypted_;
  const std::string secret_;
  std::mutex mutex_;
  GuessLimit guesses_;
  std::map<std::string, gint64> proofs_;  // their last use
  std::uint64_t challenges_ = 0;
};

}  // namespace station
