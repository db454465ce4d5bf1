#include "metadata/CoreIdentifier.h"

#include <array>
#include <cstdio>

#include <glib.h>
#include <nlohmann/json.hpp>

namespace station {
namespace {

constexpr std::uint8_t kIdentifierVersion = 1;
constexpr std::size_t kUuidBytes = 16;
constexpr std::uint8_t kNamespace[kUuidBytes] = {0x7A, 0x1D, 0x52, 0xC8, 0x0E, 0x6B, 0x4F, 0x31,
                                                 0x9B, 0x24, 0xD3, 0x95, 0x60, 0xFE, 0x18, 0x47};
// Bits of the usage byte.
constexpr std::uint8_t kPhysicalSensor = 3 << 5;
constexpr std::uint8_t kVirtualPlatform = 2 << 3;
constexpr std::uint8_t kWindow = 1 << 2;
constexpr std::uint8_t kMinor = 1 << 1;
struct IdentifierPart {
  std::uint8_t bits;
  const char* name;
};
constexpr IdentifierPart kIdentifierParts[] = {
    {3 << 5, "sensor"}, {3 << 3, "platform"}, {kWindow, "window"}, {kMinor, "minor"}};

// A UUID of version 5 (RFC 4122).
Bytes uuidOf(const std::string& name) {
  GChecksum* const sha1 = g_checksum_new(G_CHECKSUM_SHA1);
  g_checksum_update(sha1, kNamespace, sizeof(kNamespace));
  g_checksum_update(sha1, reinterpret_cast<const guchar*>(name.data()),
                    static_cast<gssize>(name.size()));
  std::array<guint8, 20> digest{};
  gsize size = digest.size();
  g_checksum_get_digest(sha1, digest.data(), &size);
  g_checksum_free(sha1);
  Bytes uuid(digest.begin(), digest.begin() + kUuidBytes);
  uuid[6] = static_cast<std::uint8_t>((uuid[6] & 0x0F) | 0x50);
  uuid[8] = static_cast<std::uint8_t>((uuid[8] & 0x3F) | 0x80);
  return uuid;
}

std::string uuidText(const Bytes& uuid) {
  std::string text;
  for (std::size_t i = 0; i < uuid.size(); ++i) {
    std::array<char, 4> digits{};
    std::snprintf(digits.data(), digits.size(), "%02x", uuid[i]);
    text += i == 4 || i == 6 || i == 8 || i == 10 ? "-" : "";
    text += digits.data();
  }
  return text;
}

}  // namespace

Bytes CoreIdentifier::make(const std::string& sensor, const std::string& platform) {
  Bytes bytes;
  if (sensor.empty() && platform.empty()) {
    return bytes;
  }
  bytes = {kIdentifierVersion, 0};
  const auto append = [&bytes](const std::string& name, const char* kind, std::uint8_t usage) {
    if (!name.empty()) {
      const Bytes uuid = uuidOf(kind + name);
      bytes[1] = static_cast<std::uint8_t>(bytes[1] | usage);
      bytes.insert(bytes.end(), uuid.begin(), uuid.end());
    }
  };
  append(sensor, "sensor/", kPhysicalSensor);
  append(platform, "platform/", kVirtualPlatform);
  return bytes;
}

nlohmann::ordered_json CoreIdentifier::decode(const Bytes& bytes) {
  nlohmann::ordered_json json;
  KlvReader reader(bytes);
  json["version"] = reader.take(1).front();
  const std::uint8_t usage = reader.take(1).front();
  for (const IdentifierPart& part : kIdentifierParts) {
    if ((usage & part.bits) != 0) {
      json[part.name] = uuidText(reader.take(kUuidBytes));
    }
  }
  return json;
}

}  // namespace station
