#pragma once

#include <gst/rtsp-server/rtsp-server.h>

#include "serve/Credentials.h"

namespace station {

// Lets only clients with these credentials (basic authentication) near what `factory` makes.
void requirePassword(GstRTSPServer* server, GstRTSPMediaFactory* factory,
                     const Credentials& credentials);

}  // namespace station
