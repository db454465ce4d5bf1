#pragma once

#include <optional>

#include "serve/Timer.h"

namespace station {

// Tells systemd, if it has started the program as a service, that it is ready, that its main loop
// runs, and that it stops.
//
// Threads: the main context's.
class Service {
 public:
  Service();
  ~Service();
  Service(const Service&) = delete;
  Service& operator=(const Service&) = delete;

  // While options are read again and carried out.
  void beginReload();
  void endReload();

 private:
  std::optional<Timer> watchdog_;
};

}  // namespace station
