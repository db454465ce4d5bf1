#pragma once

#include <memory>
#include <string>
#include <thread>

#include <gio/gio.h>

#include "base/Handles.h"
#include "metadata/LiveTelemetry.h"

struct gps_data_t;

namespace station {

// Position, velocity, attitude and number of visible satellites from gpsd. A connection that is
// lost is made anew every second; one whose host vanishes is lost after 20 seconds.
class GpsdClient : public LiveTelemetry {
 public:
  // Connects to "HOST" or "HOST:PORT" within ten seconds. Throws StationError (Source).
  GpsdClient(const std::string& place, std::chrono::nanoseconds timeout);
  ~GpsdClient() override;
  GpsdClient(const GpsdClient&) = delete;
  GpsdClient& operator=(const GpsdClient&) = delete;

 private:
  void connect();
  void run();
  void read();
  void parse(std::string line);

  const std::string place_;
  const GstPtr<GCancellable> stopping_;
  const std::unique_ptr<gps_data_t> data_;  // of the messages so far
  GstPtr<GSocketConnection> connection_;    // null while there is none
  std::string text_;                        // read, and not yet a line
  std::thread thread_;
};

}  // namespace station
