#pragma once

#include <functional>
#include <memory>
#include <string>

#include <gio/gio.h>

#include "rtsp/ClientFilter.h"

namespace station {

// What stands between a client's socket and the RTSP library.
struct ClientLink {
  ClientFilter filter;
  GTlsCertificate* certificate;  // null: no TLS; outlives the client
  std::function<bool()> isBusy;  // requests wait meanwhile, for 2 s at most
  std::function<void(const std::string& owner)> onActivity;  // at most once a second
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
