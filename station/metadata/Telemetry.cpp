#include "metadata/Telemetry.h"

#include <cmath>
#include <iterator>

namespace station {
namespace {

using Value = Telemetry::Value;

// Degrees turned into `low` <= angle < `low` + 360.
double turned(double angle, double low) {
  const double above = std::fmod(angle - low, 360.0);
  return low + (above < 0 ? above + 360.0 : above);
}

Value between(const Value& from, const Value& to, KeyKind kind, double fraction) {
  const double begin = std::get<double>(from);
  const double way = std::get<double>(to) - begin;
  if (kind == KeyKind::Number) {
    return begin + fraction * way;
  }
  return turned(begin + fraction * turned(way, -180), kind == KeyKind::Angle ? 0 : -180);
}

bool isContinuous(KeyKind kind) {
  return kind == KeyKind::Number || kind == KeyKind::Angle || kind == KeyKind::HalfTurn;
}

}  // namespace

void Telemetry::add(Time time, const Sample& sample) {
  const std::lock_guard lock(mutex_);
  const std::vector<MetadataKey>& keys = metadataKeys();
  for (auto key = keys.begin(); key != keys.end(); ++key) {
    const auto value = sample.find(key->name);
    if (value == sample.end() || key->kind == KeyKind::Longitude) {
      continue;
    }
    Entry entry;
    if (value->second && key->kind == KeyKind::Latitude) {
      const auto longitude = sample.find(std::next(key)->name);
      if (longitude != sample.end() && longitude->second) {
        entry = GeoPoint{std::get<double>(*value->second), std::get<double>(*longitude->second), 0};
      }
    } else if (value->second) {
      entry = *value->second;
    }
    Track& track = tracks_[key->name];
    track.erase(track.upper_bound(time + timeout_), track.end());
    track.insert_or_assign(time, entry);
    if (track.size() > capacity_) {
      track.erase(track.begin());
    }
  }
}

void Telemetry::writeTo(lumora::LumoraPicture& picture, Time time) const {
  const std::lock_guard lock(mutex_);
  const std::vector<MetadataKey>& keys = metadataKeys();
  for (auto key = keys.begin(); key != keys.end(); ++key) {
    const auto track = tracks_.find(key->name);
    if (track == tracks_.end()) {
      continue;
    }
    const Entry entry = valueAt(track->second, key->kind, time);
    if (const auto* const value = std::get_if<Value>(&entry)) {
      picture.setMetadata(key->name, *value);
    } else if (const auto* const point = std::get_if<GeoPoint>(&entry)) {
      picture.setMetadata(key->name, point->latitude);
      picture.setMetadata(std::next(key)->name, point->longitude);
    }
  }
}

Telemetry::Entry Telemetry::valueAt(const Track& track, KeyKind kind, Time time) const {
  const auto next = track.upper_bound(time);
  if (next == track.begin()) {
    return {};
  }
  const auto last = std::prev(next);
  if (next != track.end() && next->first - last->first <= timeout_) {
    const double fraction = std::chrono::duration<double>(time - last->first) /
                            std::chrono::duration<double>(next->first - last->first);
    const auto* const from = std::get_if<GeoPoint>(&last->second);
    const auto* const to = std::get_if<GeoPoint>(&next->second);
    if (from != nullptr && to != nullptr) {
      return between(*from, *to, fraction);
    }
    const auto* const value = std::get_if<Value>(&last->second);
    const auto* const nextValue = std::get_if<Value>(&next->second);
    if (value != nullptr && nextValue != nullptr && isContinuous(kind)) {
      return between(*value, *nextValue, kind, fraction);
    }
  }
  return time - last->first <= timeout_ ? last->second : Entry();
}

}  // namespace station
