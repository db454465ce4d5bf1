#pragma once

#include <gst/rtsp-server/rtsp-server.h>

#include "serve/Credentials.h"

namespace station {

// Requires a password (Authenticator) for every request to the server, whatever its method, and
// gives access to the media of `factory`. `isEncrypted`: whether all clients connect by TLS.
void requirePassword(GstRTSPServer* server, GstRTSPMediaFactory* factory,
                     const Credentials& credentials, bool isEncrypted);

}  // namespace station
