#include "metadata/MisbItem.h"

#include <cmath>
#include <stdexcept>

namespace station {
namespace {

using Keys = lumora::LumoraPicture::BaseMetadata::Keys;
using Mapping = MisbItem::Mapping;

constexpr std::uint8_t kLaserOn = 0x11;
// First bytes of special values of ST 1201.
constexpr std::uint8_t kImapbInfinity = 0xC8;
constexpr std::uint8_t kImapbMinusInfinity = 0xE8;
constexpr std::uint8_t kImapbNan = 0xD0;
constexpr std::uint8_t kImapbBelow = 0xE0;
constexpr std::uint8_t kImapbAbove = 0xE1;
constexpr std::size_t kMostImapbBytes = 4;

double steps(std::size_t bytes) {
  return std::exp2(8.0 * static_cast<double>(bytes));
}

Bytes numberBytes(double value, std::size_t size) {
  Bytes bytes;
  appendNumber(bytes, static_cast<std::uint64_t>(static_cast<std::int64_t>(value)), size);
  return bytes;
}

// ST 1201 scales by a power of two and shifts so that zero is exact.
struct Imapb {
  Imapb(const MisbItem& item, std::size_t bytes) {
    const double bits = std::ceil(std::log2(item.high - item.low));
    scale = std::exp2(8.0 * static_cast<double>(bytes) - 1 - bits);
    offset = item.low < 0 && item.high > 0 ? scale * item.low - std::floor(scale * item.low) : 0;
  }

  double scale;
  double offset;
};

Bytes encodeImapb(const MisbItem& item, double value) {
  if (value >= item.low && value <= item.high) {
    const Imapb imapb(item, item.bytes);
    return numberBytes(std::floor(imapb.scale * (value - item.low) + imapb.offset), item.bytes);
  }
  Bytes bytes(item.bytes, 0);
  if (std::isnan(value)) {
    bytes.front() = kImapbNan;
  } else if (std::isinf(value)) {
    bytes.front() = value > 0 ? kImapbInfinity : kImapbMinusInfinity;
  } else {
    bytes.front() = value > item.high ? kImapbAbove : kImapbBelow;
  }
  return bytes;
}

bool isSizeOf(const MisbItem& item, std::size_t bytes) {
  switch (item.mapping) {
    case Mapping::Laser:
      return bytes == 1;
    case Mapping::Imapb:  // as precise as its sender wants
      return bytes >= 1 && bytes <= kMostImapbBytes;
    default:
      return bytes == item.bytes;
  }
}

std::optional<double> decodeNumber(const MisbItem& item, const Bytes& bytes) {
  const auto number = static_cast<double>(numberOf(bytes));
  const double range = item.high - item.low;
  switch (item.mapping) {
    case Mapping::Signed: {
      const double half = steps(item.bytes) / 2;
      if (number == half) {
        return std::nullopt;
      }
      return (number < half ? number : number - 2 * half) / (half - 1) * item.high + 0.0;  // no -0
    }
    case Mapping::Imapb: {
      const Imapb imapb(item, bytes.size());
      const double value = (number - imapb.offset) / imapb.scale + item.low;
      return value <= item.high ? std::optional(value) : std::nullopt;
    }
    default:
      return item.low + number / (steps(item.bytes) - 1) * range;
  }
}

}  // namespace

std::optional<Bytes> MisbItem::encodeNumber(double value) const {
  if (mapping == Mapping::Imapb) {
    return encodeImapb(*this, value);
  }
  if (mapping == Mapping::Signed) {
    const double half = steps(bytes) / 2;
    const bool inRange = std::abs(value) <= std::abs(high);
    return numberBytes(inRange ? std::round(value / high * (half - 1)) : -half, bytes);
  }
  if (mapping == Mapping::Angle) {
    value = std::fmod(std::fmod(value, 360.0) + 360.0, 360.0);
  }
  if (!(value >= low && value <= high)) {
    return std::nullopt;
  }
  return numberBytes(std::round((value - low) / (high - low) * (steps(bytes) - 1)), bytes);
}

std::optional<Bytes> MisbItem::encode(const Value& value) const {
  if (mapping == Mapping::Text || mapping == Mapping::Octets) {
    const auto* const text = std::get_if<std::string>(&value);
    return text != nullptr ? std::optional(Bytes(text->begin(), text->end())) : std::nullopt;
  }
  if (mapping == Mapping::Laser) {
    const auto* const on = std::get_if<bool>(&value);
    return on != nullptr ? std::optional(Bytes{*on ? kLaserOn : std::uint8_t{0}}) : std::nullopt;
  }
  if (mapping == Mapping::Integer) {
    const auto* const integer = std::get_if<std::int64_t>(&value);
    const double number = integer != nullptr ? static_cast<double>(*integer) : -1;
    const bool fits = number >= low && number <= (high > 0 ? high : steps(bytes) - 1);
    return fits ? std::optional(numberBytes(number, bytes)) : std::nullopt;
  }
  const auto* const number = std::get_if<double>(&value);
  return number != nullptr ? encodeNumber(*number) : std::nullopt;
}

std::optional<MisbItem::Value> MisbItem::decode(const Bytes& content) const {
  if (mapping == Mapping::Text || mapping == Mapping::Octets) {
    return std::string(content.begin(), content.end());
  }
  if (mapping == Mapping::Integer && content.size() <= sizeof(std::int64_t)) {
    return static_cast<std::int64_t>(numberOf(content));
  }
  if (!isSizeOf(*this, content.size())) {
    throw std::out_of_range("item " + std::to_string(tag) + " has " +
                            std::to_string(content.size()) + " bytes");
  }
  if (mapping == Mapping::Laser) {
    return (content.front() & 1) != 0;
  }
  const std::optional<double> number = decodeNumber(*this, content);
  return number ? std::optional<Value>(*number) : std::nullopt;
}

// NOLINTNEXTLINE(readability-function-size): a table
const std::vector<MisbItem>& misbItems() {
  static const std::vector<MisbItem> kItems = {
      {2, Keys::kUtcTimestampUs, Mapping::Integer, 8},
      {3, "mission_id", Mapping::Text},
      {5, Keys::kYawDeg, Mapping::Angle, 2, 0, 360},
      {6, Keys::kPitchDeg, Mapping::Signed, 2, -20, 20},
      {7, Keys::kRollDeg, Mapping::Signed, 2, -50, 50},
      {10, "platform_designation", Mapping::Text},
      {11, "image_source_sensor", Mapping::Text},
      {12, "image_coordinate_system", Mapping::Text},
      {13, Keys::kSensorLatDeg, Mapping::Signed, 4, -90, 90},
      {14, Keys::kSensorLonDeg, Mapping::Signed, 4, -180, 180},
      {15, Keys::kSensorAltM, Mapping::Unsigned, 2, -900, 19000},
      {16, Keys::kHfovDeg, Mapping::Unsigned, 2, 0, 180},
      {17, Keys::kVfovDeg, Mapping::Unsigned, 2, 0, 180},
      {18, Keys::kPanDeg, Mapping::Angle, 4, 0, 360},
      {19, Keys::kTiltDeg, Mapping::Signed, 4, -180, 180},
      {20, "sensor_relative_roll_deg", Mapping::Angle, 4, 0, 360},
      {21, Keys::kMeasuredSlantRangeM, Mapping::Unsigned, 4, 0, 5000000},
      {22, "target_width_m", Mapping::Unsigned, 2, 0, 10000},
      {23, Keys::kFrameCenterLatDeg, Mapping::Signed, 4, -90, 90},
      {24, Keys::kFrameCenterLonDeg, Mapping::Signed, 4, -180, 180},
      {25, Keys::kFrameCenterElevM, Mapping::Unsigned, 2, -900, 19000},
      {40, Keys::kTargetLrfLatDeg, Mapping::Signed, 4, -90, 90},
      {41, Keys::kTargetLrfLonDeg, Mapping::Signed, 4, -180, 180},
      {42, Keys::kTargetLrfElevM, Mapping::Unsigned, 2, -900, 19000},
      {47, Keys::kLaserRangeEnabled, Mapping::Laser},
      {48, "security", Mapping::Octets},
      {51, Keys::kVelocityDownMps, Mapping::Signed, 2, 180, -180},
      {62, Keys::kLaserPrfCode, Mapping::Integer, 2, 111, 8888},
      {65, "version", Mapping::Integer, 1},
      {79, Keys::kVelocityNorthMps, Mapping::Signed, 2, -327, 327},
      {80, Keys::kVelocityEastMps, Mapping::Signed, 2, -327, 327},
      {82, "corner_1_lat_deg", Mapping::Signed, 4, -90, 90},
      {83, "corner_1_lon_deg", Mapping::Signed, 4, -180, 180},
      {84, "corner_2_lat_deg", Mapping::Signed, 4, -90, 90},
      {85, "corner_2_lon_deg", Mapping::Signed, 4, -180, 180},
      {86, "corner_3_lat_deg", Mapping::Signed, 4, -90, 90},
      {87, "corner_3_lon_deg", Mapping::Signed, 4, -180, 180},
      {88, "corner_4_lat_deg", Mapping::Signed, 4, -90, 90},
      {89, "corner_4_lon_deg", Mapping::Signed, 4, -180, 180},
      {90, Keys::kPitchDeg, Mapping::Signed, 4, -90, 90},
      {91, Keys::kRollDeg, Mapping::Signed, 4, -90, 90},
      {94, "core_identifier", Mapping::Octets},
      {117, Keys::kAzimuthRateDps, Mapping::Imapb, 3, -1000, 1000},
      {118, Keys::kElevationRateDps, Mapping::Imapb, 3, -1000, 1000},
      {119, Keys::kRollRateDps, Mapping::Imapb, 3, -1000, 1000},
      {123, Keys::kNavSatCount, Mapping::Integer, 1},
      {124, Keys::kPositioningMethodSource, Mapping::Integer, 1, 1, 255},
      {125, Keys::kPlatformStatus, Mapping::Integer, 1, 0, 12},
  };
  return kItems;
}

}  // namespace station
