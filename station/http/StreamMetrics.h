#pragma once

#include <cstdint>
#include <list>
#include <string>

#include "http/Stream.h"
#include "serve/ServeOptions.h"

namespace station {

// What the server reports, beside the figures of the whole process (Metrics). Borrows everything.
struct ServerStatus {
  const media_backend::GstVideoBackend& backend;
  const CameraOptions& camera;
  const FrameFormat& frames;
  const ServeOptions& options;
  std::int64_t uptimeSeconds;
  const std::list<HttpStream>& streams;
};

// For /status.json.
std::string statusJson(const ServerStatus& server);
// For /metrics: Prometheus's text format.
std::string prometheusText(const ServerStatus& server);

}  // namespace station
