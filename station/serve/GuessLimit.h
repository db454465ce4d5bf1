#pragma once

#include <map>
#include <string>

#include <glib.h>

namespace station {

// Limits wrong passwords per client: some at once, then one each interval.
//
// Memory: kMaxClients entries. Threads: one at a time.
class GuessLimit {
 public:
  static constexpr unsigned int kGuesses = 10;
  static constexpr gint64 kInterval = gint64{10} * G_USEC_PER_SEC;
  static constexpr std::size_t kMaxClients = 4096;

  // Whether the client has to wait before its next guess.
  bool isReached(const std::string& client) const;
  // Counts a wrong password.
  void add(const std::string& client);

 private:
  // When the client has all its guesses again: an interval for each wrong one.
  std::map<std::string, gint64> clear_;
};

// What counts as one client of that address: an IPv6 host has all addresses of its network.
std::string guesserOf(const std::string& address);

}  // namespace station
