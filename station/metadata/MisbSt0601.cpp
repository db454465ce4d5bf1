#include "metadata/MisbSt0601.h"

#include <algorithm>
#include <cmath>
#include <map>
#include <optional>
#include <stdexcept>
#include <variant>

#include <nlohmann/json.hpp>

#include "metadata/CoreIdentifier.h"
#include "metadata/Geometry.h"
#include "metadata/MisbItem.h"
#include "metadata/MisbSt0102.h"

namespace station {
namespace {

using lumora::LumoraPicture;
using Keys = LumoraPicture::BaseMetadata::Keys;
using Value = MisbItem::Value;
using nlohmann::ordered_json;

constexpr std::uint8_t kUniversalKey[] = {0x06, 0x0E, 0x2B, 0x34, 0x02, 0x0B, 0x01, 0x01,
                                          0x0E, 0x01, 0x03, 0x01, 0x01, 0x00, 0x00, 0x00};
constexpr std::uint8_t kChecksumTag = 1;
constexpr std::size_t kChecksumBytes = 2;
constexpr std::uint8_t kPitchTag = 6;
constexpr std::uint8_t kRollTag = 7;
constexpr std::uint8_t kFullPitchTag = 90;
constexpr std::uint8_t kFullRollTag = 91;
constexpr std::uint8_t kSecurityTag = 48;
constexpr std::uint8_t kCoreIdentifierTag = 94;
constexpr std::int64_t kSetVersion = 17;  // revision of the standard
constexpr double kHalfRadians = kRadians / 2;

// The header's values, and what follows from them.
class Values {
 public:
  Values(const LumoraPicture& picture, const MisbSt0601::Labels& labels) : picture_(picture) {
    set("version", kSetVersion);
    setText("mission_id", labels.mission);
    setText("platform_designation", labels.platform);
    setText("image_source_sensor", labels.sensor.empty() ? sensorName() : labels.sensor);
    setBytes("security", labels.security);
    const std::string serial = text(Keys::kSerialNumber);
    setBytes("core_identifier",
             CoreIdentifier::make(serial.empty() ? "" : text(Keys::kPartNumber) + "/" + serial,
                                  labels.platform));
    if (find(Keys::kSensorLatDeg) != nullptr || find(Keys::kFrameCenterLatDeg) != nullptr) {
      setText("image_coordinate_system", "Geodetic WGS84");
    }
    setFootprint();
  }

  const Value* find(const std::string& name) const {
    const auto own = own_.find(name);
    return own != own_.end() ? &own->second : picture_.metadata(name);
  }

  std::optional<double> number(const std::string& name) const {
    const Value* const value = find(name);
    const auto* const number = value != nullptr ? std::get_if<double>(value) : nullptr;
    return number != nullptr && std::isfinite(*number) ? std::optional(*number) : std::nullopt;
  }

 private:
  void set(const std::string& name, Value value) { own_.insert_or_assign(name, std::move(value)); }
  void setText(const std::string& name, const std::string& text) {
    if (!text.empty()) {
      set(name, text.substr(0, MisbSt0601::kLongestText));
    }
  }
  void setBytes(const std::string& name, const Bytes& bytes) {
    if (!bytes.empty()) {
      set(name, std::string(bytes.begin(), bytes.end()));
    }
  }

  std::string text(const std::string& name) const {
    const Value* const value = find(name);
    const auto* const text = value != nullptr ? std::get_if<std::string>(value) : nullptr;
    return text != nullptr ? *text : "";
  }

  std::string sensorName() const {
    const std::string name = text(Keys::kCameraName);
    return name.empty() ? text(Keys::kCameraModelName) : name;
  }

  void setFootprint();

  const LumoraPicture& picture_;
  std::map<std::string, Value> own_;
};

void Values::setFootprint() {
  const auto hfov = number(Keys::kHfovDeg);
  const auto vfov = number(Keys::kVfovDeg);
  if (const auto range = number(Keys::kMeasuredSlantRangeM); range && hfov) {
    set("target_width_m", 2 * *range * std::tan(*hfov * kHalfRadians));
  }
  const auto latitude = number(Keys::kSensorLatDeg);
  const auto longitude = number(Keys::kSensorLonDeg);
  const auto height = number(Keys::kSensorAltM);
  const auto yaw = number(Keys::kYawDeg);
  const auto pitch = number(Keys::kPitchDeg);
  const auto roll = number(Keys::kRollDeg);
  const auto pan = number(Keys::kPanDeg);
  const auto tilt = number(Keys::kTiltDeg);
  const auto ground = number(Keys::kFrameCenterElevM);
  if (!latitude || std::abs(*latitude) > 90 || !longitude || !height || !yaw || !pitch || !roll ||
      !pan || !tilt || !hfov || !vfov || !ground) {
    return;
  }
  const double right = std::tan(*hfov * kHalfRadians);
  const double down = std::tan(*vfov * kHalfRadians);
  // Clockwise from the upper left corner.
  const Ray corners[] = {{-right, -down}, {right, -down}, {right, down}, {-right, down}};
  int number = 0;
  for (const Ray& corner : corners) {
    const std::string name = "corner_" + std::to_string(++number);
    const auto point = meetGround({*latitude, *longitude, *height},
                                  {*yaw, *pitch, *roll, *pan, *tilt}, corner, *ground);
    if (point) {
      set(name + "_lat_deg", point->latitude);
      set(name + "_lon_deg", point->longitude);
    }
  }
}

// Whether the item is the one for its key: pitch and roll have one that is short, and a full one.
bool isChosen(const MisbItem& item, const Values& values) {
  const bool isPitch = item.tag == kPitchTag || item.tag == kFullPitchTag;
  if (!isPitch && item.tag != kRollTag && item.tag != kFullRollTag) {
    return true;
  }
  const std::optional<double> value = values.number(item.name);
  const bool isFull = value && std::abs(*value) > (isPitch ? 20 : 50);
  return isFull == (item.tag == kFullPitchTag || item.tag == kFullRollTag);
}

ordered_json toJson(const MisbItem& item, const Bytes& bytes) {
  if (item.tag == kSecurityTag) {
    return MisbSt0102::decode(bytes);
  }
  if (item.tag == kCoreIdentifierTag) {
    return CoreIdentifier::decode(bytes);
  }
  const std::optional<Value> value = item.decode(bytes);
  return value ? std::visit([](const auto& content) { return ordered_json(content); }, *value)
               : ordered_json();
}

std::string hexOf(const Bytes& bytes) {
  constexpr const char* kDigits = "0123456789abcdef";
  std::string text;
  for (const std::uint8_t byte : bytes) {
    text += {kDigits[byte >> 4], kDigits[byte & 0x0F]};
  }
  return text;
}

void readItems(const Bytes& set, ordered_json& json) {
  for (KlvReader reader(set); !reader.atEnd();) {
    const std::uint64_t tag = reader.takeTag();
    const Bytes value = reader.take(reader.takeLength());
    if (tag == kChecksumTag) {
      continue;
    }
    const auto item = std::find_if(misbItems().begin(), misbItems().end(),
                                   [tag](const MisbItem& known) { return known.tag == tag; });
    if (item == misbItems().end()) {
      json["tag_" + std::to_string(tag)] = hexOf(value);
      continue;
    }
    json[item->name] = toJson(*item, value);
    if (item->name == Keys::kUtcTimestampUs) {
      json["time"] = static_cast<double>(numberOf(value)) / 1e6;
    }
  }
}

}  // namespace

Bytes MisbSt0601::encode(const LumoraPicture& picture) const {
  const Values values(picture, labels_);
  Bytes set;
  for (const MisbItem& item : misbItems()) {
    const Value* const value = values.find(item.name);
    if (value == nullptr || !isChosen(item, values)) {
      continue;
    }
    if (const std::optional<Bytes> bytes = item.encode(*value)) {
      appendItem(set, item.tag, *bytes);
    }
  }
  set.push_back(kChecksumTag);
  set.push_back(kChecksumBytes);

  Bytes packet(std::begin(kUniversalKey), std::end(kUniversalKey));
  appendLength(packet, set.size() + kChecksumBytes);
  packet.insert(packet.end(), set.begin(), set.end());
  appendNumber(packet, klvChecksum(packet.data(), packet.size()), kChecksumBytes);
  return packet;
}

ordered_json MisbSt0601::decode(const Bytes& bytes, std::size_t& size) {
  ordered_json json = ordered_json::object();
  size = bytes.size();
  try {
    KlvReader reader(bytes);
    const Bytes key = reader.take(sizeof(kUniversalKey));
    const Bytes set = reader.take(reader.takeLength());
    size = reader.position();
    if (!std::equal(key.begin(), key.end(), std::begin(kUniversalKey))) {
      json["universal_key"] = hexOf(key);
      return json;
    }
    readItems(set, json);
    const std::size_t summed = size - kChecksumBytes;
    if (set.size() < kChecksumBytes ||
        klvChecksum(bytes.data(), summed) != (bytes[summed] << 8 | bytes[summed + 1])) {
      json["error"] = "wrong checksum";
    }
  } catch (const std::out_of_range& error) {
    json["error"] = error.what();
  }
  return json;
}

}  // namespace station
