#include "metadata/TelemetryFile.h"

#include <algorithm>
#include <fstream>
#include <limits>
#include <stdexcept>

#include "base/StationError.h"
#include "metadata/TelemetryLine.h"

namespace station {

TelemetryFile::TelemetryFile(const std::string& path, std::chrono::nanoseconds timeout)
    : telemetry_(timeout, std::numeric_limits<std::size_t>::max()) {
  std::ifstream file(path);
  std::string text;
  std::size_t number = 0;
  while (std::getline(file, text)) {
    ++number;
    try {
      const TelemetryLine line = TelemetryLine::parse(text);
      if (!line.time) {
        throw std::invalid_argument("no time");
      }
      begin_ = std::min(begin_, *line.time);
      telemetry_.add(*line.time, line.sample);
    } catch (const std::invalid_argument& error) {
      throw StationError(ExitCode::Source,
                         path + ", line " + std::to_string(number) + ": " + error.what());
    }
  }
  if (!file.eof() || number == 0) {
    throw StationError(ExitCode::Source, "cannot read telemetry: " + path);
  }
}

void TelemetryFile::annotate(lumora::LumoraPicture& picture, Time time) {
  delay_ = delay_.value_or(time - begin_);
  telemetry_.writeTo(picture, time - std::chrono::duration_cast<Time::duration>(*delay_));
}

}  // namespace station
