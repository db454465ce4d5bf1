#include "serve/Listener.h"

#include <cstdlib>
#include <utility>

#include <fcntl.h>
#include <ifaddrs.h>
#include <net/if.h>
#include <netinet/in.h>
#include <sys/socket.h>
#include <systemd/sd-daemon.h>

#include "base/Callback.h"
#include "base/StationError.h"

namespace station {
namespace {

// Of the kernel, which doubles it, for a client that does not read.
constexpr int kSendBufferBytes = 256 * 1024;
constexpr int kBacklog = 128;

// This machine's first one of that family that is not only its own, or `any`.
GstPtr<GInetAddress> reachableAddress(GInetAddress* any) {
  GstPtr<GInetAddress> found(G_INET_ADDRESS(g_object_ref(any)));
  struct ifaddrs* all = nullptr;
  if (getifaddrs(&all) != 0) {
    return found;
  }
  for (const struct ifaddrs* item = all; item != nullptr; item = item->ifa_next) {
    if (item->ifa_addr == nullptr || (item->ifa_flags & (IFF_UP | IFF_LOOPBACK)) != IFF_UP ||
        item->ifa_addr->sa_family != g_inet_address_get_family(any)) {
      continue;
    }
    const GstPtr<GSocketAddress> address(g_socket_address_new_from_native(
        item->ifa_addr, item->ifa_addr->sa_family == AF_INET6 ? sizeof(struct sockaddr_in6)
                                                              : sizeof(struct sockaddr_in)));
    GInetAddress* const host =
        g_inet_socket_address_get_address(G_INET_SOCKET_ADDRESS(address.get()));
    if (!g_inet_address_get_is_link_local(host)) {
      found.reset(G_INET_ADDRESS(g_object_ref(host)));
      break;
    }
  }
  freeifaddrs(all);
  return found;
}

// A descriptor, the caller's, of the socket that systemd has passed under this name; -1 for none.
// The socket stays with the process, for a later listener.
int passedSocket(const std::string& name) {
  char** names = nullptr;
  const int count = sd_listen_fds_with_names(/*unset_environment=*/0, &names);
  int found = -1;
  for (int i = 0; i < count; ++i) {
    if (names[i] == name && found < 0) {
      found = fcntl(SD_LISTEN_FDS_START + i, F_DUPFD_CLOEXEC, 0);
    }
    std::free(names[i]);
  }
  std::free(names);
  return found;
}

}  // namespace

Listener::Listener(const std::string& name, const std::string& address, std::uint16_t port,
                   const Limits& limits, Accept accept)
    : limits_(limits),
      accept_(std::move(accept)),
      reserved_(limits.connections),
      clients_(std::make_shared<ClientSettings>(limits.quiet, limits.idle)),
      service_(g_socket_service_new()) {
  if (!adoptSocket(name)) {
    listen(address, port);
  }
  g_signal_connect(service_.get(), "incoming", G_CALLBACK(guarded<onIncoming>), this);
}

bool Listener::adoptSocket(const std::string& name) {
  UniqueFd descriptor(passedSocket(name));
  if (descriptor.get() < 0) {
    return false;
  }
  g_autoptr(GSocket) socket = g_socket_new_from_fd(descriptor.get(), nullptr);
  g_autoptr(GSocketAddress) address =
      socket != nullptr ? g_socket_get_local_address(socket, nullptr) : nullptr;
  if (socket != nullptr) {
    static_cast<void>(descriptor.release());  // the socket's now
  }
  if (!G_IS_INET_SOCKET_ADDRESS(address) ||
      !g_socket_listener_add_socket(G_SOCKET_LISTENER(service_.get()), socket, nullptr, nullptr)) {
    throw StationError(ExitCode::Usage,
                       "the socket " + name + " of systemd does not listen on TCP");
  }
  address_.reset(G_INET_SOCKET_ADDRESS(g_steal_pointer(&address)));
  return true;
}

void Listener::listen(const std::string& address, std::uint16_t port) {
  g_autoptr(GSocketAddress) wanted = g_inet_socket_address_new_from_string(address.c_str(), port);
  if (wanted == nullptr) {
    throw StationError(ExitCode::Usage, "not a numeric address: " + address);
  }
  g_autoptr(GError) error = nullptr;
  GSocketAddress* effective = nullptr;
  g_socket_listener_set_backlog(G_SOCKET_LISTENER(service_.get()), kBacklog);
  if (!g_socket_listener_add_address(G_SOCKET_LISTENER(service_.get()), wanted,
                                     G_SOCKET_TYPE_STREAM, G_SOCKET_PROTOCOL_TCP, nullptr,
                                     &effective, &error)) {
    const bool inUse = g_error_matches(error, G_IO_ERROR, G_IO_ERROR_ADDRESS_IN_USE);
    throw StationError(ExitCode::Address,
                       "cannot serve on " + address + " port " + std::to_string(port) + ": " +
                           (inUse ? "another program uses this port; --port 0 takes any free one"
                                  : error->message));
  }
  address_.reset(G_INET_SOCKET_ADDRESS(effective));
}

Listener::~Listener() {
  stop();
}

void Listener::stop() {
  clients_->stopping = true;
  g_socket_service_stop(service_.get());
  g_socket_listener_close(G_SOCKET_LISTENER(service_.get()));
}

gboolean Listener::onIncoming(GSocketService* /*service*/, GSocketConnection* connection,
                              GObject* /*source*/, gpointer self) {
  auto* const listener = static_cast<Listener*>(self);
  GSocket* const socket = g_socket_connection_get_socket(connection);
  if (listener->connections() >= listener->limits_.connections) {
    Client::turnAway(
        socket, *listener->clients_,
        "there are " + std::to_string(listener->connections()) + " connections already");
    g_io_stream_close(G_IO_STREAM(connection), nullptr, nullptr);
    return TRUE;
  }
  if (!listener->minutes_ || !listener->minutes_->isActive()) {
    listener->minutes_.emplace(std::chrono::minutes(1), [listener] {
      listener->clients_->log.endMinute();
      return listener->connections() > 0;
    });
  }
  Client::attach(socket, listener->clients_);
  g_socket_set_timeout(socket, static_cast<guint>(listener->limits_.idle.count()));
  g_socket_set_keepalive(socket, TRUE);
  g_socket_set_option(socket, SOL_SOCKET, SO_SNDBUF, kSendBufferBytes, nullptr);
  listener->accept_(connection);
  return TRUE;
}

std::string Listener::authority() const {
  GstPtr<GInetAddress> host(
      G_INET_ADDRESS(g_object_ref(g_inet_socket_address_get_address(address_.get()))));
  if (g_inet_address_get_is_any(host.get())) {
    host = reachableAddress(host.get());
  }
  g_autofree gchar* text = g_inet_address_to_string(host.get());
  const bool bracketed = g_inet_address_get_family(host.get()) == G_SOCKET_FAMILY_IPV6;
  return (bracketed ? "[" + std::string(text) + "]" : std::string(text)) + ":" +
         std::to_string(g_inet_socket_address_get_port(address_.get()));
}

bool Listener::isLoopback() const {
  return g_inet_address_get_is_loopback(g_inet_socket_address_get_address(address_.get())) != FALSE;
}

unsigned int Listener::connections() const {
  return static_cast<unsigned int>(clients_.use_count() - 1);
}

Metrics::Figures Listener::figures() const {
  Metrics::Figures figures = clients_->log.figures();
  figures.push_back({"connections", Metrics::Kind::Gauge, "Open connections.", connections()});
  return figures;
}

}  // namespace station
