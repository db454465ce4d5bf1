#pragma once

#include <cstdint>
#include <list>
#include <string>

#include "http/Stream.h"
#include "serve/ServeOptions.h"

namespace station {

// What the server reports about itself. Borrows everything.
struct ServerStatus {
  const media_backend::GstVideoBackend& backend;
  const LiveCamera& camera;
  const ServeOptions& options;
  std::int64_t uptimeSeconds;
  unsigned int connections;
  const std::list<HttpStream>& streams;
};

// For /status.json.
std::string statusJson(const ServerStatus& server);
// For /metrics: Prometheus's text format.
std::string prometheusText(const ServerStatus& server);

}  // namespace station
