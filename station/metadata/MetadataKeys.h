#pragma once

#include <string>
#include <vector>

namespace station {

// How a metadata key is read from telemetry and interpolated between two samples.
enum class KeyKind {
  Number,    // linear
  Angle,     // degrees, the short way round; result 0 <= value < 360
  HalfTurn,  // the same; result -180 <= value < 180
  Latitude,  // degrees; the next row is its longitude. Both follow the geodesic
  Longitude,
  Component,  // a number that has a meaning only with others; keeps the earlier value
  Integer,    // keeps the earlier value, as the following
  Flag,
  Text,
  Frame,  // belongs to the picture itself and is not read
};

struct MetadataKey {
  const std::string& name;
  KeyKind kind;
};

// All keys of the picture's header.
const std::vector<MetadataKey>& metadataKeys();

}  // namespace station
