#include "metadata/MetadataOptions.h"

#include <CLI/CLI.hpp>

#include "base/Options.h"
#include "base/StationError.h"
#include "metadata/DemoFlight.h"
#include "metadata/GpsdClient.h"
#include "metadata/MisbSt0102.h"
#include "metadata/TelemetryFile.h"
#include "metadata/TelemetryStream.h"

namespace station {

void MetadataOptions::addTo(CLI::App& command) {
  command
      .add_option(
          "--telemetry", telemetry,
          "What the metadata says: JSON lines of a file that is replayed, of standard input "
          "or UDP; gpsd; or an invented flight")
      ->type_name("FILE|-|udp:[ADDRESS:]PORT|gpsd:HOST[:PORT]|demo");
  command
      .add_option("--telemetry-timeout", timeoutSeconds,
                  "Seconds after which a value is not known any more")
      ->check(CLI::Range(0.001, 1e6))
      ->check(refuseNan)
      ->capture_default_str();
  const std::pair<const char*, std::pair<std::string*, const char*>> texts[] = {
      {"--mission", {&labels.mission, "Name of the mission in the metadata"}},
      {"--platform-name", {&labels.platform, "Name of the aircraft, ship or vehicle"}},
      {"--sensor-name", {&labels.sensor, "Name of the sensor; the camera's if not given"}},
  };
  for (const auto& [name, target] : texts) {
    command.add_option(name, *target.first, target.second)
        ->check([](const std::string& text) {
          return text.size() > MisbSt0601::kLongestText ? "longer than 127 bytes" : "";
        })
        ->type_name("TEXT");
  }
  command
      .add_option_function<std::string>(
          "--security",
          [this](const std::string& text) { labels.security = MisbSt0102::parse(text); },
          "Security marking: unclassified, restricted, confidential, secret or top-secret; the "
          "country that says so, and the country in the picture, as unclassified:CHE:CHE")
      ->type_name("LEVEL:COUNTRY:COUNTRY");
}

std::unique_ptr<MetadataSource> MetadataOptions::open() const {
  const auto timeout = std::chrono::duration_cast<std::chrono::nanoseconds>(
      std::chrono::duration<double>(timeoutSeconds));
  const auto after = [this](const std::string& prefix) {
    return telemetry.rfind(prefix, 0) == 0 ? telemetry.substr(prefix.size()) : "";
  };
  if (telemetry.empty()) {
    return nullptr;
  }
  if (telemetry == "demo") {
    return std::make_unique<DemoFlight>();
  }
  if (telemetry == "-") {
    return std::make_unique<TelemetryStream>(TelemetryStream::openStandardInput(), timeout);
  }
  if (const std::string place = after("udp:"); !place.empty()) {
    return std::make_unique<TelemetryStream>(TelemetryStream::openUdp(place), timeout);
  }
  if (const std::string place = after("gpsd:"); !place.empty()) {
    return std::make_unique<GpsdClient>(place, timeout);
  }
  return std::make_unique<TelemetryFile>(telemetry, timeout);
}

}  // namespace station
