#pragma once

#include <chrono>
#include <cstdint>
#include <string>
#include <thread>

#include <arpa/inet.h>
#include <glib.h>
#include <netinet/in.h>
#include <sys/socket.h>
#include <unistd.h>

#include "Require.h"

// A client of a server that works on this thread's main context.
class NetworkClient {
 public:
  explicit NetworkClient(std::uint16_t port) {
    sockaddr_in address{};
    address.sin_family = AF_INET;
    address.sin_port = htons(port);
    address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    require(connect(fd_, reinterpret_cast<const sockaddr*>(&address), sizeof(address)) == 0,
            "the server takes connections");
  }
  ~NetworkClient() { close(fd_); }
  NetworkClient(const NetworkClient&) = delete;
  NetworkClient& operator=(const NetworkClient&) = delete;

  // Sends the bytes; returns what comes back until the server has closed, has been quiet for a
  // while, or has sent enough.
  std::string exchange(const std::uint8_t* bytes, std::size_t size) {
    std::string answer;
    std::size_t sent = 0;
    for (int quiet = 0; quiet < 20 && answer.size() < kEnough;) {
      if (sent < size) {
        const ssize_t count = send(fd_, bytes + sent, size - sent, MSG_DONTWAIT | MSG_NOSIGNAL);
        sent += count > 0 ? static_cast<std::size_t>(count) : 0;
      }
      const bool worked = g_main_context_iteration(nullptr, FALSE) != FALSE;
      char buffer[4096];
      const ssize_t count = recv(fd_, buffer, sizeof(buffer), MSG_DONTWAIT);
      if (count == 0 || (count < 0 && errno != EAGAIN)) {
        break;
      }
      answer.append(buffer, count > 0 ? static_cast<std::size_t>(count) : 0);
      if (count < 0 && !worked) {
        std::this_thread::sleep_for(std::chrono::microseconds(100));
        ++quiet;
      }
    }
    return answer;
  }

 private:
  static constexpr std::size_t kEnough = 64 * 1024;
  const int fd_ = socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0);
};

// Lets the server see that a client has gone: `connections` says how many it has.
template <typename Connections>
void awaitGone(const Connections& connections) {
  const auto patience = std::chrono::steady_clock::now() + std::chrono::seconds(60);
  while (connections() > 0) {
    require(std::chrono::steady_clock::now() < patience, "a client that has gone is let go");
    if (!g_main_context_iteration(nullptr, FALSE)) {
      std::this_thread::sleep_for(std::chrono::microseconds(200));
    }
  }
}
