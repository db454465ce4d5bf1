#pragma once

#include <atomic>
#include <memory>
#include <string>
#include <thread>

#include "metadata/LiveTelemetry.h"

struct gps_data_t;

namespace station {

// Position, velocity, attitude and number of visible satellites from gpsd. A connection that is
// lost is made anew every second.
class GpsdClient : public LiveTelemetry {
 public:
  // Connects to "HOST" or "HOST:PORT". Throws StationError (Source).
  GpsdClient(const std::string& place, std::chrono::nanoseconds timeout);
  ~GpsdClient() override;
  GpsdClient(const GpsdClient&) = delete;
  GpsdClient& operator=(const GpsdClient&) = delete;

 private:
  struct Close {
    void operator()(gps_data_t* data) const;
  };

  void connect();
  void run();
  void read();

  std::string host_;
  std::string port_;
  std::unique_ptr<gps_data_t, Close> connection_;  // null while there is none
  std::atomic<bool> stopping_{false};
  std::thread thread_;
};

}  // namespace station
