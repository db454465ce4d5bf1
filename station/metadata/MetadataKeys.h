#pragma once

#include <string>
#include <vector>

namespace station {

// How a picture's metadata key is read from telemetry, and how its value goes from one time to the
// next.
enum class KeyKind {
  Number,    // goes straight
  Angle,     // degrees, goes the short way round; 0 <= value < 360 in between
  HalfTurn,  // the same, -180 <= value < 180
  Latitude,  // degrees; the next row is its longitude, and both go the shortest way over the ground
  Longitude,
  Component,  // a number that makes sense only with others; it stays
  Integer,    // stays, as the following
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
