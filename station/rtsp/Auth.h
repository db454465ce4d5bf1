#pragma once

#include <gst/rtsp-server/rtsp-server.h>

#include "serve/Credentials.h"

namespace station {

// Requires these credentials (basic authentication) for the media of `factory`. Logs refusals.
void requirePassword(GstRTSPServer* server, GstRTSPMediaFactory* factory,
                     const Credentials& credentials);

}  // namespace station
