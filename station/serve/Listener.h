#pragma once

#include <chrono>
#include <cstdint>
#include <functional>
#include <memory>
#include <string>

#include <gio/gio.h>

namespace station {

// Accepts TCP connections for a server, and no more of them than it may have at once: further ones
// are closed as they come. Works on the default main context.
//
// Threads: that of the main context; connections() any.
class Listener {
 public:
  struct Limits {
    unsigned int connections;   // at once
    std::chrono::seconds idle;  // without a byte read or written while one is waited for
  };
  // Takes a connection whose socket has the limits set.
  using Accept = std::function<void(GSocketConnection* connection)>;

  // Listens on a numeric address, on any free port if `port` is 0. Raises the process's limit of
  // open files if it is too low for the connections. Throws StationError: Usage for something that
  // is not an address or more connections than the system allows, Output for an address that
  // cannot be had.
  Listener(const std::string& address, std::uint16_t port, const Limits& limits, Accept accept);
  ~Listener();
  Listener(const Listener&) = delete;
  Listener& operator=(const Listener&) = delete;

  // "127.0.0.1:8080", "[::1]:8080"
  std::string authority() const;
  bool isLoopback() const;
  unsigned int connections() const;

 private:
  struct Unref {
    void operator()(gpointer object) const { g_object_unref(object); }
  };

  static gboolean onIncoming(GSocketService* service, GSocketConnection* connection,
                             GObject* source, gpointer self);

  const Limits limits_;
  const Accept accept_;
  // Every socket holds a copy, so that its uses count the connections wherever they end.
  const std::shared_ptr<void> connectionCount_ = std::make_shared<char>();
  std::unique_ptr<GSocketService, Unref> service_;
  std::unique_ptr<GInetSocketAddress, Unref> address_;
};

}  // namespace station
