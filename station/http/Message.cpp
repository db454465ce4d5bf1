#include "http/Message.h"

#include "base/WeakReference.h"

namespace station {
namespace {

constexpr const char* kSocket = "station-socket";

}  // namespace

void addProtectiveHeaders(SoupServerMessage* message) {
  SoupMessageHeaders* const headers = soup_server_message_get_response_headers(message);
  for (const auto& [name, value] : kProtectiveHeaders) {
    soup_message_headers_replace(headers, name, value);
  }
}

void respond(SoupServerMessage* message, const char* contentType, const std::string& text) {
  soup_server_message_set_status(message, SOUP_STATUS_OK, nullptr);
  soup_server_message_set_response(message, contentType, SOUP_MEMORY_COPY, text.data(),
                                   text.size());
}

void refuse(SoupServerMessage* message, guint status, const std::string& reason,
            const char* phrase) {
  respond(message, "text/plain; charset=utf-8", reason + "\n");
  soup_server_message_set_status(message, status, phrase);
}

void setSocket(GSocketAddress* client, GSocket* socket) {
  g_object_set_data_full(G_OBJECT(client), kSocket, new WeakReference(socket),
                         [](gpointer reference) { delete static_cast<WeakReference*>(reference); });
}

GstPtr<GSocket> socketOf(SoupServerMessage* message) {
  GSocketAddress* const client = soup_server_message_get_remote_address(message);
  const auto* const socket =
      client != nullptr
          ? static_cast<const WeakReference*>(g_object_get_data(G_OBJECT(client), kSocket))
          : nullptr;
  return GstPtr<GSocket>(socket != nullptr ? static_cast<GSocket*>(socket->get()) : nullptr);
}

}  // namespace station
