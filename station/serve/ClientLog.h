#pragma once

#include <array>
#include <cstdint>
#include <mutex>
#include <string>

#include "base/Metrics.h"

namespace station {

// What happens to clients: they come and go, or are refused for one of the reasons behind that.
enum class ClientEvent : std::uint8_t {
  Connected,
  Left,
  Session,   // names another client's session
  Password,  // a wrong one, or one too many
  Limit,     // as many clients or connections as allowed
  Host,      // asks for a name that is not the server's
  Request,   // malformed, too long, or too many of them
  Time,      // too slow
};

// Writes a server's clients to standard error, and counts those that are refused. What they do
// cannot fill the log: of each kind of event, it has kLinesPerMinute lines a minute, and then the
// number of those that it lacks.
//
// Threads: any.
class ClientLog {
 public:
  static constexpr unsigned int kLinesPerMinute = 20;

  explicit ClientLog(bool isQuiet) : quiet_(isQuiet) {}
  ~ClientLog() { endMinute(); }
  ClientLog(const ClientLog&) = delete;
  ClientLog& operator=(const ClientLog&) = delete;

  // `address` and `text` are the line.
  void add(ClientEvent event, const std::string& address, const std::string& text);
  // To be called every minute while there are clients.
  void endMinute();
  // "refused", one for each reason.
  Metrics::Figures figures() const;

 private:
  static constexpr std::size_t kEvents = 8;

  struct Count {
    std::uint64_t all = 0;
    std::uint64_t lines = 0;  // in this minute, those left out included
  };

  const bool quiet_;
  mutable std::mutex mutex_;
  std::array<Count, kEvents> counts_;
};

}  // namespace station
