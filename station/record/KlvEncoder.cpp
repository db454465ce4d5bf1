#include "record/KlvEncoder.h"

#include <cmath>
#include <cstddef>
#include <string>
#include <variant>

namespace station {
namespace {

using lumora::LumoraPicture;
using Keys = LumoraPicture::BaseMetadata::Keys;
using Bytes = std::vector<std::uint8_t>;

constexpr std::uint8_t kUniversalKey[] = {0x06, 0x0E, 0x2B, 0x34, 0x02, 0x0B, 0x01, 0x01,
                                          0x0E, 0x01, 0x03, 0x01, 0x01, 0x00, 0x00, 0x00};
constexpr std::uint8_t kChecksumTag = 1;
constexpr std::uint8_t kTimestampTag = 2;
constexpr std::uint8_t kVersionTag = 65;
constexpr std::uint8_t kVersion = 17;  // revision of the standard

enum class Mapping {
  Unsigned,  // [low, high] onto 0 to 2^n - 1
  Angle,     // likewise, after turning the angle into [0, 360)
  Signed,    // [-high, high] onto -(2^(n-1) - 1) to 2^(n-1) - 1; -2^(n-1) means out of range
};

struct Item {
  std::uint8_t tag;
  const std::string& key;
  Mapping mapping;
  std::size_t bytes;
  double low;
  double high;
};

void append(Bytes& set, std::uint64_t value, std::size_t bytes) {
  for (std::size_t i = bytes; i-- > 0;) {
    set.push_back(static_cast<std::uint8_t>(value >> (8 * i)));
  }
}

void appendItem(Bytes& set, std::uint8_t tag, std::uint64_t value, std::size_t bytes) {
  set.push_back(tag);
  set.push_back(static_cast<std::uint8_t>(bytes));
  append(set, value, bytes);
}

void appendMapped(Bytes& set, const Item& item, double value) {
  const double steps = std::exp2(8.0 * static_cast<double>(item.bytes));
  if (item.mapping == Mapping::Signed) {
    const double largest = steps / 2 - 1;
    const bool inRange = std::abs(value) <= item.high;
    const double mapped = inRange ? std::round(value / item.high * largest) : -steps / 2;
    appendItem(set, item.tag, static_cast<std::uint64_t>(static_cast<std::int64_t>(mapped)),
               item.bytes);
    return;
  }
  if (item.mapping == Mapping::Angle) {
    value = std::fmod(std::fmod(value, 360.0) + 360.0, 360.0);
  }
  if (value >= item.low && value <= item.high) {
    const double mapped = std::round((value - item.low) / (item.high - item.low) * (steps - 1));
    appendItem(set, item.tag, static_cast<std::uint64_t>(mapped), item.bytes);
  }
}

// The sum of the packet's 16-bit words, over everything before the checksum's own value.
std::uint16_t checksum(const Bytes& packet) {
  unsigned int sum = 0;
  for (std::size_t i = 0; i < packet.size(); ++i) {
    sum += i % 2 == 0 ? packet[i] * 256U : packet[i];
  }
  return static_cast<std::uint16_t>(sum);
}

template <typename T>
const T* find(const LumoraPicture& picture, const std::string& key) {
  const LumoraPicture::MetadataValue* const value = picture.metadata(key);
  return value == nullptr ? nullptr : std::get_if<T>(value);
}

}  // namespace

std::vector<std::uint8_t> encodeMisbSt0601(const LumoraPicture& picture) {
  static const Item kItems[] = {
      {5, Keys::kYawDeg, Mapping::Angle, 2, 0, 360},
      {6, Keys::kPitchDeg, Mapping::Signed, 2, -20, 20},
      {7, Keys::kRollDeg, Mapping::Signed, 2, -50, 50},
      {13, Keys::kSensorLatDeg, Mapping::Signed, 4, -90, 90},
      {14, Keys::kSensorLonDeg, Mapping::Signed, 4, -180, 180},
      {15, Keys::kSensorAltM, Mapping::Unsigned, 2, -900, 19000},
      {16, Keys::kHfovDeg, Mapping::Unsigned, 2, 0, 180},
      {17, Keys::kVfovDeg, Mapping::Unsigned, 2, 0, 180},
      {18, Keys::kPanDeg, Mapping::Angle, 4, 0, 360},
      {19, Keys::kTiltDeg, Mapping::Signed, 4, -180, 180},
      {21, Keys::kMeasuredSlantRangeM, Mapping::Unsigned, 4, 0, 5000000},
      {23, Keys::kFrameCenterLatDeg, Mapping::Signed, 4, -90, 90},
      {24, Keys::kFrameCenterLonDeg, Mapping::Signed, 4, -180, 180},
      {25, Keys::kFrameCenterElevM, Mapping::Unsigned, 2, -900, 19000},
  };

  Bytes set;
  if (const auto* microseconds = find<std::int64_t>(picture, Keys::kUtcTimestampUs)) {
    appendItem(set, kTimestampTag, static_cast<std::uint64_t>(*microseconds), 8);
  }
  for (const Item& item : kItems) {
    if (const auto* value = find<double>(picture, item.key)) {
      appendMapped(set, item, *value);
    }
  }
  appendItem(set, kVersionTag, kVersion, 1);
  set.push_back(kChecksumTag);
  set.push_back(2);

  Bytes packet(std::begin(kUniversalKey), std::end(kUniversalKey));
  // BER length in its short form: all items together stay below 128 bytes.
  packet.push_back(static_cast<std::uint8_t>(set.size() + 2));
  packet.insert(packet.end(), set.begin(), set.end());
  append(packet, checksum(packet), 2);
  return packet;
}

}  // namespace station
