#pragma once

#include <chrono>
#include <cstddef>
#include <cstdint>
#include <map>
#include <mutex>
#include <optional>
#include <string>
#include <variant>

#include <lumora/LumoraPicture.h>

#include "metadata/Geometry.h"
#include "metadata/MetadataKeys.h"
#include "metadata/MetadataSource.h"

namespace station {

// Values of metadata keys over time.
//
// Between two samples, a value is interpolated as KeyKind says. After the last one it stays until
// the timeout; then it is unknown. Samples come about in the order of their times: one that is
// older than others by more than the timeout replaces them, as the clock of its times has been set
// back.
//
// Threads: any, for add() and writeTo().
class Telemetry {
 public:
  using Time = MetadataSource::Time;
  // Of a time since 1970, so that differences of times fit into the clock's nanoseconds.
  static constexpr std::int64_t kLatestSeconds = 9'000'000'000;
  using Value = lumora::LumoraPicture::MetadataValue;
  // Values of one time by their keys; an empty value makes the key unknown from then on. A sample
  // with a latitude has the longitude, too.
  using Sample = std::map<std::string, std::optional<Value>>;

  // Keeps at most `capacity` values of a key, and drops the oldest beyond that.
  Telemetry(std::chrono::nanoseconds timeout, std::size_t capacity)
      : timeout_(timeout), capacity_(capacity) {}

  // Every value has the type of its key: double, std::int64_t, bool or std::string.
  void add(Time time, const Sample& sample);

  // Writes the values of `time` into the picture's header.
  void writeTo(lumora::LumoraPicture& picture, Time time) const;

 private:
  using Entry = std::variant<std::monostate, Value, GeoPoint>;
  using Track = std::map<Time, Entry>;

  Entry valueAt(const Track& track, KeyKind kind, Time time) const;

  const std::chrono::nanoseconds timeout_;
  const std::size_t capacity_;
  mutable std::mutex mutex_;
  std::map<std::string, Track> tracks_;  // positions under the name of the latitude
};

}  // namespace station
