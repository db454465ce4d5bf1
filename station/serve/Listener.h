#pragma once

#include <chrono>
#include <cstdint>
#include <functional>
#include <memory>
#include <optional>
#include <string>

#include <gio/gio.h>

#include "base/Handles.h"
#include "serve/Client.h"
#include "serve/ReservedDescriptors.h"
#include "serve/Timer.h"

namespace station {

// Accepts TCP connections for a server on the default main context, and closes those beyond its
// limit. Logs its clients.
//
// Threads: the main context's; connections() and figures() any.
class Listener {
 public:
  struct Limits {
    unsigned int connections;   // at once
    std::chrono::seconds idle;  // of a socket that waits to read or write
    bool quiet;                 // no log of clients
  };
  // Takes a connection whose socket has the limits set.
  using Accept = std::function<void(GSocketConnection* connection)>;

  // Listens on the socket that systemd has passed under `name`, if there is one; otherwise on a
  // numeric address, on any free port if `port` is 0. Reserves descriptors for the connections.
  // Throws StationError: Usage for something that is not an address, a passed socket that is not of
  // TCP, or more connections than the system allows, Address for an address that is taken or not
  // this machine's.
  Listener(const std::string& name, const std::string& address, std::uint16_t port,
           const Limits& limits, Accept accept);
  ~Listener();
  Listener(const Listener&) = delete;
  Listener& operator=(const Listener&) = delete;

  // "127.0.0.1:8080", "[::1]:8080"; of all addresses, one that others reach, if there is any.
  std::string authority() const;
  bool isLoopback() const;
  unsigned int connections() const;
  // Connections, and what was refused.
  Metrics::Figures figures() const;
  // Accepts no more. Clients that end from now on are logged as disconnected.
  void stop();

 private:
  static gboolean onIncoming(GSocketService* service, GSocketConnection* connection,
                             GObject* source, gpointer self);

  bool adoptSocket(const std::string& name);
  void listen(const std::string& address, std::uint16_t port);

  const Limits limits_;
  const Accept accept_;
  const ReservedDescriptors reserved_;
  const std::shared_ptr<ClientSettings> clients_;
  std::optional<Timer> minutes_;
  const GstPtr<GSocketService> service_;
  GstPtr<GInetSocketAddress> address_;
};

}  // namespace station
