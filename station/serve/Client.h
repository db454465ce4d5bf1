#pragma once

#include <atomic>
#include <chrono>
#include <memory>
#include <string>

#include <gio/gio.h>

#include "serve/ClientLog.h"

namespace station {

// What the clients of a server share. Its use count tells how many there are.
struct ClientSettings {
  ClientSettings(bool isQuiet, std::chrono::seconds limit) : log(isQuiet), idle(limit) {}

  ClientLog log;
  const std::chrono::seconds idle;  // after which their sockets time out
  std::atomic<bool> stopping{false};
};

// A server's client, as data of its socket. Logs one line, with the client's address, when it
// connects, is refused, is disconnected by the server, or leaves: when its socket is freed.
//
// Threads: any.
class Client {
 public:
  static void attach(GSocket* socket, std::shared_ptr<ClientSettings> settings);
  // For a connection that is closed right away.
  static void turnAway(GSocket* socket, ClientSettings& settings, const std::string& reason);

  // Nothing for a socket without a client. disconnect() shuts the socket down; refuse() is for a
  // request.
  static void refuse(GSocket* socket, ClientEvent why, const std::string& reason);
  static void disconnect(GSocket* socket, ClientEvent why, const std::string& reason);
  // Bytes were read or written. Without such calls, a client is never logged as idle.
  static void noteActivity(GSocket* socket);

  Client(GSocket* socket, std::shared_ptr<ClientSettings> settings);
  ~Client();
  Client(const Client&) = delete;
  Client& operator=(const Client&) = delete;

 private:
  static Client* of(GSocket* socket);
  bool isIdle() const;
  void log(ClientEvent event, const std::string& text) const;

  const std::shared_ptr<ClientSettings> settings_;
  const std::string address_;
  std::atomic<gint64> lastActivity_{0};  // monotonic, in microseconds
  std::atomic<bool> isDisconnected_{false};
};

}  // namespace station
