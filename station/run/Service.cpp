#include "run/Service.h"

#include <chrono>
#include <cstdint>
#include <string>

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
  endReload();
}

void Service::beginReload() {
  const auto now = std::chrono::steady_clock::now().time_since_epoch();
  const auto time = std::chrono::duration_cast<std::chrono::microseconds>(now).count();
  sd_notify(/*unset_environment=*/0,
            ("RELOADING=1\nMONOTONIC_USEC=" + std::to_string(time)).c_str());
}

void Service::endReload() {
  sd_notify(/*unset_environment=*/0, "READY=1");
}

Service::~Service() {
  sd_notify(/*unset_environment=*/0, "STOPPING=1");
}

}  // namespace station
