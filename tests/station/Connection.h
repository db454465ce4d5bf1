#pragma once

#include <string>

#include <gio/gio.h>

// A TCP connection to a server on this machine; reading and writing give up after 30 seconds.
class Connection {
 public:
  explicit Connection(int port) {
    g_autoptr(GSocketClient) client = g_socket_client_new();
    g_socket_client_set_timeout(client, 30);
    connection_ = g_socket_client_connect_to_host(client, "127.0.0.1", static_cast<guint16>(port),
                                                  nullptr, nullptr);
  }
  ~Connection() { g_clear_object(&connection_); }
  Connection(const Connection&) = delete;
  Connection& operator=(const Connection&) = delete;

  void send(const std::string& bytes) {
    g_output_stream_write_all(g_io_stream_get_output_stream(G_IO_STREAM(connection_)), bytes.data(),
                              bytes.size(), nullptr, nullptr, nullptr);
  }
  void get(const std::string& path) {
    send("GET " + path + " HTTP/1.0\r\nHost: 127.0.0.1\r\n\r\n");
  }
  // Some bytes; empty at the end.
  std::string receive() {
    std::string bytes(65536, '\0');
    const gssize count = g_input_stream_read(g_io_stream_get_input_stream(G_IO_STREAM(connection_)),
                                             bytes.data(), bytes.size(), nullptr, nullptr);
    bytes.resize(count > 0 ? static_cast<std::size_t>(count) : 0);
    return bytes;
  }

 private:
  GSocketConnection* connection_ = nullptr;
};
