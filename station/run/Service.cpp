#include "run/Service.h"

#include <chrono>
#include <cstdint>

#include <systemd/sd-daemon.h>

namespace station {

Service::Service() {
  std::uint64_t limit = 0;  // microseconds
  if (sd_watchdog_enabled(/*unset_environment=*/0, &limit) > 0) {
    const auto interval =
        std::chrono::duration_cast<std::chrono::milliseconds>(std::chrono::microseconds(limit / 2));
    watchdog_.emplace(interval, [] {
      sd_notify(/*unset_environment=*/0, "WATCHDOG=1");
      return true;
    });
  }
  sd_notify(/*unset_environment=*/0, "READY=1");
}

Service::~Service() {
  sd_notify(/*unset_environment=*/0, "STOPPING=1");
}

}  // namespace station
