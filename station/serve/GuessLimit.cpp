#include "serve/GuessLimit.h"

#include <algorithm>

#include <gio/gio.h>

namespace station {

bool GuessLimit::isReached(const std::string& client) const {
  const auto found = clear_.find(client);
  return found != clear_.end() &&
         found->second > g_get_monotonic_time() + (kGuesses - 1) * kInterval;
}

void GuessLimit::add(const std::string& client) {
  const gint64 now = g_get_monotonic_time();
  gint64& clear = clear_[client];
  clear = std::max(clear, now) + kInterval;
  if (clear_.size() <= kMaxClients) {
    return;
  }
  const auto fewestGuesses = std::min_element(
      clear_.begin(), clear_.end(),
      [](const auto& one, const auto& other) { return one.second < other.second; });
  clear_.erase(fewestGuesses);
}

std::string guesserOf(const std::string& address) {
  constexpr gsize kNetworkBytes = 8;
  g_autoptr(GInetAddress) parsed = g_inet_address_new_from_string(address.c_str());
  if (parsed == nullptr || g_inet_address_get_family(parsed) != G_SOCKET_FAMILY_IPV6) {
    return address;
  }
  const std::string bytes(reinterpret_cast<const char*>(g_inet_address_to_bytes(parsed)),
                          kNetworkBytes);
  // Loopback and mapped IPv4 addresses differ only in their end.
  return bytes == std::string(kNetworkBytes, '\0') ? address : bytes;
}

}  // namespace station
