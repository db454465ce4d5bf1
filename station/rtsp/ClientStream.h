#pragma once

#include <atomic>
#include <functional>
#include <memory>
#include <string>

#include <gio/gio.h>

#include "rtsp/ClientFilter.h"

namespace station {

// Measures how long the server library has been handling a request. The library has one thread for
// all clients, so their requests wait for each other.
//
// Threads: any.
class RequestClock {
 public:
  void begin() { begin_ = g_get_monotonic_time(); }
  void end() { begin_ = 0; }
  bool isAtOneForASecond() const {
    const gint64 begin = begin_;
    return begin != 0 && g_get_monotonic_time() - begin >= G_USEC_PER_SEC;
  }

 private:
  std::atomic<gint64> begin_{0};  // monotonic, in microseconds; 0: no request
};

// The filter between a client's socket and the server library, and its callbacks.
struct ClientLink {
  ClientFilter filter;
  GTlsCertificate* certificate;  // null: no TLS; outlives the client
  std::function<bool()> isBusy;  // delays requests while true, by 2 s at most
  std::function<void(const std::string& owner)> onActivity;  // at most once a second
  std::shared_ptr<RequestClock> clock;                       // of all clients of a server
};

// Makes all further connections of the socket read through the link's filter, and through TLS if it
// has a certificate. A client that the filter refuses gets a response and is disconnected.
//
// Threads: the main context's; streams and onActivity on the library's thread of the client.
void attachLink(GSocket* socket, std::unique_ptr<ClientLink> link);

// The prefix of the client's session ids. The socket has to have a link.
//
// Threads: the library's thread of the client.
const std::string& ownerOf(GSocket* socket);

}  // namespace station
