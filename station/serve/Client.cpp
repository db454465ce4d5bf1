#include "serve/Client.h"

#include <utility>

#include "base/Callback.h"

namespace station {
namespace {

constexpr const char* kClientKey = "station-client";

// "192.0.2.7:51234", "[2001:db8::7]:51234"
std::string addressOf(GSocket* socket) {
  g_autoptr(GSocketAddress) address = g_socket_get_remote_address(socket, nullptr);
  if (address == nullptr) {
    return "a client";  // gone already
  }
  g_autofree gchar* text = g_socket_connectable_to_string(G_SOCKET_CONNECTABLE(address));
  return text;
}

}  // namespace

void Client::attach(GSocket* socket, std::shared_ptr<ClientSettings> settings) {
  g_object_set_data_full(G_OBJECT(socket), kClientKey, new Client(socket, std::move(settings)),
                         [](gpointer client) { delete static_cast<Client*>(client); });
}

void Client::turnAway(GSocket* socket, ClientSettings& settings, const std::string& reason) {
  settings.log.add(ClientEvent::Limit, addressOf(socket), "refused: " + reason);
}

void Client::refuse(GSocket* socket, ClientEvent why, const std::string& reason) {
  if (Client* const client = of(socket)) {
    client->log(why, "refused: " + reason);
  }
}

void Client::disconnect(GSocket* socket, ClientEvent why, const std::string& reason) {
  Client* const client = of(socket);
  if (client != nullptr && !client->isDisconnected_.exchange(true)) {
    client->log(why, "disconnected: " + reason);
  }
  if (socket != nullptr) {
    g_socket_shutdown(socket, TRUE, TRUE, nullptr);
  }
}

void Client::noteActivity(GSocket* socket) {
  if (Client* const client = of(socket)) {
    client->lastActivity_ = g_get_monotonic_time();
  }
}

Client::Client(GSocket* socket, std::shared_ptr<ClientSettings> settings)
    : settings_(std::move(settings)), address_(addressOf(socket)) {
  log(ClientEvent::Connected, "connected");
}

Client::~Client() {
  if (isDisconnected_) {
    return;
  }
  callGuarded([this] {
    log(ClientEvent::Left,
        settings_->stopping ? "disconnected: the server stops"
        : isIdle() ? "disconnected: idle for " + std::to_string(settings_->idle.count()) + " s"
                   : "left");
  });
}

Client* Client::of(GSocket* socket) {
  return socket != nullptr ? static_cast<Client*>(g_object_get_data(G_OBJECT(socket), kClientKey))
                           : nullptr;
}

// Whether its socket has timed out, which the server libraries do not report.
bool Client::isIdle() const {
  const gint64 last = lastActivity_;
  const std::chrono::microseconds silence(g_get_monotonic_time() - last);
  return last != 0 && silence >= settings_->idle;
}

void Client::log(ClientEvent event, const std::string& text) const {
  settings_->log.add(event, address_, text);
}

}  // namespace station
