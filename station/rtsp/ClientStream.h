#pragma once

#include <atomic>
#include <functional>
#include <memory>
#include <string>

#include <gio/gio.h>

#include "rtsp/ClientFilter.h"

namespace station {

// How long the library handles a request. It has one thread for all clients, whose requests wait
// meanwhile.
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

// What stands between a client's socket and the RTSP library.
struct ClientLink {
  ClientFilter filter;
  GTlsCertificate* certificate;  // null: no TLS; outlives the client
  std::function<bool()> isBusy;  // requests wait meanwhile, for 2 s at most
  std::function<void(const std::string& owner)> onActivity;  // at most once a second
  std::shared_ptr<RequestClock> clock;                       // of all clients of a server
};

// From this call on, connections made from the socket read through the link's filter, and through
// TLS if it has a certificate. A client that the filter refuses is answered and disconnected.
//
// Threads: the main context's; streams and onActivity on the library's thread of the client.
void attachLink(GSocket* socket, std::unique_ptr<ClientLink> link);

// What the ids of the client's sessions begin with. The socket needs a link.
//
// Threads: the library's thread of the client.
const std::string& ownerOf(GSocket* socket);

}  // namespace station
