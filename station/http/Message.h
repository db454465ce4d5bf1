#pragma once

#include <string>

#include <libsoup/soup.h>

#include "base/Handles.h"

namespace station {

// Every answer carries these.
constexpr const char* kProtectiveHeaders[][2] = {
    {"Cache-Control", "no-store"},
    {"Content-Security-Policy",
     "default-src 'self'; media-src 'self' blob:; base-uri 'none'; form-action 'none'; "
     "frame-ancestors 'none'"},
    {"Cross-Origin-Resource-Policy", "same-origin"},
    {"Referrer-Policy", "no-referrer"},
    {"X-Content-Type-Options", "nosniff"},
    {"X-Frame-Options", "DENY"},
};

void addProtectiveHeaders(SoupServerMessage* message);

void respond(SoupServerMessage* message, const char* contentType, const std::string& text);
// Answers with a line of text. `phrase` describes a status that libsoup does not know.
void refuse(SoupServerMessage* message, guint status, const std::string& reason,
            const char* phrase = nullptr);

// libsoup does not know the socket of a connection of soup_server_accept_iostream(): it is data of
// the client's address. Weak, as the socket itself holds that address.
void setSocket(GSocketAddress* client, GSocket* socket);
// The client's, or null after it has left.
GstPtr<GSocket> socketOf(SoupServerMessage* message);

}  // namespace station
