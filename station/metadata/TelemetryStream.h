#pragma once

#include <string>
#include <thread>

#include "base/Handles.h"
#include "metadata/LiveTelemetry.h"

namespace station {

// Telemetry that arrives while the program runs, as TelemetryLine: from standard input, or in UDP
// datagrams of one line or several. A line without a time gets that of its arrival. The first lines
// that cannot be parsed are reported on standard error.
class TelemetryStream : public LiveTelemetry {
 public:
  // Takes a descriptor over and reads from it on a thread of its own.
  TelemetryStream(int input, std::chrono::nanoseconds timeout);
  ~TelemetryStream() override;
  TelemetryStream(const TelemetryStream&) = delete;
  TelemetryStream& operator=(const TelemetryStream&) = delete;

  static int openStandardInput();
  // A UDP socket for "PORT", on this machine only, or "ADDRESS:PORT". Throws StationError (Usage,
  // Address).
  static int openUdp(const std::string& place);

 private:
  void run();
  void receive(const std::string& line);

  const UniqueFd input_;
  const UniqueFd wakeUp_;
  int refused_ = 0;
  std::thread thread_;
};

}  // namespace station
