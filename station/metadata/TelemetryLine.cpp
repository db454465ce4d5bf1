#include "metadata/TelemetryLine.h"

#include <cmath>
#include <cstdint>
#include <stdexcept>

#include <glib.h>
#include <nlohmann/json.hpp>

namespace station {
namespace {

using nlohmann::json;

[[noreturn]] void refuse(const std::string& name, const char* expected) {
  throw std::invalid_argument(name + " is not " + expected);
}

Telemetry::Time timeOf(const json& value) {
  if (value.is_number()) {
    const auto seconds = value.get<double>();
    if (!(seconds >= 0 && seconds < static_cast<double>(Telemetry::kLatestSeconds))) {
      refuse("time", "in seconds since 1970");
    }
    return Telemetry::Time(
        std::chrono::microseconds(std::llround(seconds * 1e6)));  // as exact as a double
  }
  if (value.is_string()) {
    g_autoptr(GTimeZone) utc = g_time_zone_new_utc();
    g_autoptr(GDateTime) time =
        g_date_time_new_from_iso8601(value.get_ref<const std::string&>().c_str(), utc);
    const std::int64_t seconds = time != nullptr ? g_date_time_to_unix(time) : -1;
    if (seconds >= 0 && seconds < Telemetry::kLatestSeconds) {
      return Telemetry::Time(std::chrono::seconds(seconds) +
                             std::chrono::microseconds(g_date_time_get_microsecond(time)));
    }
  }
  refuse("time", "in seconds since 1970 or an ISO 8601 time");
}

Telemetry::Value valueOf(const json& value, const MetadataKey& key) {
  switch (key.kind) {
    case KeyKind::Flag:
      return value.is_boolean() ? value.get<bool>() : (refuse(key.name, "true or false"), false);
    case KeyKind::Text:
      return value.is_string() ? value.get<std::string>() : (refuse(key.name, "a text"), "");
    case KeyKind::Integer:
      if (!value.is_number_integer()) {
        refuse(key.name, "a whole number");
      }
      return value.get<std::int64_t>();
    default:
      if (!value.is_number()) {
        refuse(key.name, "a number");
      }
      return value.get<double>();
  }
}

}  // namespace

TelemetryLine TelemetryLine::parse(const std::string& text) {
  const json object = json::parse(text, nullptr, /*allow_exceptions=*/false);
  if (!object.is_object()) {
    throw std::invalid_argument("not a JSON object");
  }
  TelemetryLine line;
  if (const auto time = object.find("time"); time != object.end()) {
    line.time = timeOf(*time);
  }
  for (const MetadataKey& key : metadataKeys()) {
    const auto value = object.find(key.name);
    if (value == object.end() || key.kind == KeyKind::Frame) {
      continue;
    }
    line.sample[key.name] = value->is_null() ? std::nullopt : std::optional(valueOf(*value, key));
  }
  for (const MetadataKey* key = &metadataKeys().front(); key <= &metadataKeys().back(); ++key) {
    if (key->kind == KeyKind::Latitude &&
        line.sample.count(key->name) != line.sample.count(key[1].name)) {
      throw std::invalid_argument(key->name + " and " + key[1].name + " come together");
    }
  }
  return line;
}

}  // namespace station
