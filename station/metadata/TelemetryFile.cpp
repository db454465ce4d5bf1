#include "metadata/TelemetryFile.h"

#include <fstream>
#include <limits>
#include <map>
#include <stdexcept>
#include <utility>

#include "base/StationError.h"
#include "metadata/TelemetryLine.h"

namespace station {

TelemetryFile::TelemetryFile(const std::string& path, std::chrono::nanoseconds timeout)
    : telemetry_(timeout, std::numeric_limits<std::size_t>::max()) {
  std::ifstream file(path);
  std::string text;
  std::size_t number = 0;
  std::multimap<Time, Telemetry::Sample> samples;  // lines may be in any order
  while (std::getline(file, text)) {
    ++number;
    try {
      TelemetryLine line = TelemetryLine::parse(text);
      if (!line.time) {
        throw std::invalid_argument("no time");
      }
      samples.emplace(*line.time, std::move(line.sample));
    } catch (const std::invalid_argument& error) {
      throw StationError(ExitCode::Source,
                         path + ", line " + std::to_string(number) + ": " + error.what());
    }
  }
  if (!file.eof() || number == 0) {
    throw StationError(ExitCode::Source, "cannot read telemetry: " + path);
  }
  begin_ = samples.begin()->first;
  for (const auto& [time, sample] : samples) {
    telemetry_.add(time, sample);
  }
}

void TelemetryFile::annotate(lumora::LumoraPicture& picture, Time time) {
  delay_ = delay_.value_or(time - begin_);
  telemetry_.writeTo(picture, time - std::chrono::duration_cast<Time::duration>(*delay_));
}

}  // namespace station
