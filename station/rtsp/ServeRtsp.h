#pragma once

#include <media_backend/GstVideoBackend.h>

#include "serve/ServeOptions.h"

namespace station {

// The command "serve rtsp": live video of a camera, until Ctrl-C. Throws StationError.
void serveRtsp(const media_backend::GstVideoBackend& backend, const ServeOptions& options);

}  // namespace station
