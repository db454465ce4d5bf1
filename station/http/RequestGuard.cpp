#include "http/RequestGuard.h"

#include <algorithm>

#include "http/Message.h"
#include "serve/Client.h"

namespace station {
namespace {

constexpr guint kTooManyRequests = 429;

// As a client writes it: an IPv4 address also on a socket for both families.
std::string textOf(GSocketAddress* address) {
  g_autofree gchar* text =
      g_inet_address_to_string(g_inet_socket_address_get_address(G_INET_SOCKET_ADDRESS(address)));
  const std::string result = text;
  constexpr std::string_view kMapped = "::ffff:";
  return result.rfind(kMapped, 0) == 0 ? result.substr(kMapped.size()) : result;
}

bool isSameHost(const std::string& one, const std::string& other) {
  return g_ascii_strcasecmp(one.c_str(), other.c_str()) == 0;
}

std::string targetOf(SoupServerMessage* message) {
  GUri* const uri = soup_server_message_get_uri(message);
  const char* const query = g_uri_get_query(uri);
  return g_uri_get_path(uri) + (query != nullptr ? "?" + std::string(query) : "");
}

}  // namespace

RequestGuard::RequestGuard(const ServeOptions& options) : hosts_(options.hosts) {
  if (options.credentials) {
    authenticator_.emplace(*options.credentials, Authenticator::Protocol::Http,
                           options.isEncrypted());
  }
}

void RequestGuard::check(SoupServerMessage* message) {
  // libsoup would answer parts of a body, as many as the client names, and copies each of them.
  soup_message_headers_remove(soup_server_message_get_request_headers(message), "Range");
  const std::string method = soup_server_message_get_method(message);
  if (!isForThisHost(message)) {
    Client::refuse(socketOf(message).get(), ClientEvent::Host,
                   "asks for a host that is not this one (--host)");
    refuse(message, SOUP_STATUS_MISDIRECTED_REQUEST,
           "not served under this name: media-station takes further names with --host",
           "Misdirected Request");
  } else if (method != "GET" && method != "HEAD") {
    SoupMessageHeaders* const headers = soup_server_message_get_response_headers(message);
    soup_message_headers_replace(headers, "Allow", "GET, HEAD");
    soup_message_headers_replace(headers, "Connection", "close");
    refuse(message, SOUP_STATUS_METHOD_NOT_ALLOWED, "only GET and HEAD");
  } else if (authenticator_) {
    authenticate(message);
  }
}

// A web page can give its own name the server's address, but not the server's name or address to
// itself (DNS rebinding).
bool RequestGuard::isForThisHost(SoupServerMessage* message) const {
  const std::string host = g_uri_get_host(soup_server_message_get_uri(message));
  GSocketAddress* const local = soup_server_message_get_local_address(message);
  const bool isLoopback = g_inet_address_get_is_loopback(
      g_inet_socket_address_get_address(G_INET_SOCKET_ADDRESS(local)));
  return isSameHost(host, textOf(local)) ||
         isSameHost(host, isLoopback ? "localhost" : g_get_host_name()) ||
         std::any_of(hosts_.begin(), hosts_.end(),
                     [&host](const std::string& name) { return isSameHost(host, name); });
}

void RequestGuard::authenticate(SoupServerMessage* message) {
  const GstPtr<GSocket> socket = socketOf(message);
  const std::string target = targetOf(message);
  const Authenticator::Verdict verdict =
      authenticator_->check({socket.get(), textOf(soup_server_message_get_remote_address(message)),
                             soup_message_headers_get_one(
                                 soup_server_message_get_request_headers(message), "Authorization"),
                             soup_server_message_get_method(message), target.c_str()});
  if (verdict.isAdmitted) {
    return;
  }
  SoupMessageHeaders* const headers = soup_server_message_get_response_headers(message);
  for (const std::string& challenge : verdict.challenges) {
    soup_message_headers_append(headers, "WWW-Authenticate", challenge.c_str());
  }
  if (verdict.challenges.empty()) {
    soup_message_headers_replace(headers, "Retry-After", Authenticator::kRetryAfter);
    refuse(message, kTooManyRequests, "too many wrong passwords from this address",
           "Too Many Requests");
  } else {
    refuse(message, SOUP_STATUS_UNAUTHORIZED, "a password is required");
  }
}

}  // namespace station
