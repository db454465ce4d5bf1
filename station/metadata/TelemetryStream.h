#pragma once

#include <cstddef>
#include <string>
#include <thread>

#include "base/Handles.h"
#include "metadata/Telemetry.h"

namespace station {

// Telemetry that arrives while the program runs, as TelemetryLine: from standard input, or in UDP
// datagrams of one line or several. A line without a time gets that of its arrival. The first lines
// that cannot be parsed are reported on standard error.
class TelemetryStream : public MetadataSource {
 public:
  static constexpr std::size_t kCapacity = 4096;  // values of a key

  // Takes a descriptor over and reads from it on a thread of its own.
  TelemetryStream(int input, std::chrono::nanoseconds timeout);
  ~TelemetryStream() override;
  TelemetryStream(const TelemetryStream&) = delete;
  TelemetryStream& operator=(const TelemetryStream&) = delete;

  void annotate(lumora::LumoraPicture& picture, Time time) override;

  static int openStandardInput();
  // A UDP socket for "PORT", on this machine only, or "ADDRESS:PORT". Throws StationError (Usage,
  // Address).
  static int openUdp(const std::string& place);

 private:
  void run();
  void add(const std::string& line);

  Telemetry telemetry_;
  const UniqueFd input_;
  const UniqueFd wakeUp_;
  int refused_ = 0;
  std::thread thread_;
};

}  // namespace station
