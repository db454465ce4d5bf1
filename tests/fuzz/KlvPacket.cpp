// Metadata of any kind as KLV packets, which are taken apart again as the standard says: every item
// is whole and says what the metadata said, to the item's resolution.

#include "record/KlvEncoder.h"

#include <cmath>
#include <cstring>
#include <map>
#include <string>
#include <vector>

#include <fuzzer/FuzzedDataProvider.h>

#include "Require.h"

namespace {

using Keys = lumora::LumoraPicture::BaseMetadata::Keys;
using Bytes = std::vector<std::uint8_t>;

struct Item {
  int tag;
  const std::string& key;
  std::size_t bytes;
  double low;
  double high;
  bool isSigned;
  bool isAngle;  // turns
};

const Item kItems[] = {
    {5, Keys::kYawDeg, 2, 0, 360, false, true},
    {6, Keys::kPitchDeg, 2, -20, 20, true, false},
    {7, Keys::kRollDeg, 2, -50, 50, true, false},
    {13, Keys::kSensorLatDeg, 4, -90, 90, true, false},
    {14, Keys::kSensorLonDeg, 4, -180, 180, true, false},
    {15, Keys::kSensorAltM, 2, -900, 19000, false, false},
    {16, Keys::kHfovDeg, 2, 0, 180, false, false},
    {17, Keys::kVfovDeg, 2, 0, 180, false, false},
    {18, Keys::kPanDeg, 4, 0, 360, false, true},
    {19, Keys::kTiltDeg, 4, -180, 180, true, false},
    {21, Keys::kMeasuredSlantRangeM, 4, 0, 5000000, false, false},
    {23, Keys::kFrameCenterLatDeg, 4, -90, 90, true, false},
    {24, Keys::kFrameCenterLonDeg, 4, -180, 180, true, false},
    {25, Keys::kFrameCenterElevM, 2, -900, 19000, false, false},
};

std::uint64_t number(const Bytes& bytes) {
  std::uint64_t value = 0;
  for (const std::uint8_t byte : bytes) {
    value = value << 8U | byte;
  }
  return value;
}

// Items by tag. Checks key, lengths, order of the special ones, and checksum.
std::map<int, Bytes> takeApart(const Bytes& packet) {
  static constexpr std::uint8_t kKey[] = {0x06, 0x0E, 0x2B, 0x34, 0x02, 0x0B, 0x01, 0x01,
                                          0x0E, 0x01, 0x03, 0x01, 0x01, 0x00, 0x00, 0x00};
  require(packet.size() > 17 && std::memcmp(packet.data(), kKey, sizeof(kKey)) == 0, "the key");
  require(packet[16] < 0x80 && packet[16] == packet.size() - 17, "the set's length, one byte");
  std::map<int, Bytes> items;
  std::size_t at = 17;
  int tag = 0;
  while (at < packet.size()) {
    require(at + 2 <= packet.size() && packet[at] < 0x80 && packet[at + 1] < 0x80,
            "an item's tag and length are a byte each");
    tag = packet[at];
    const std::size_t length = packet[at + 1];
    require(at + 2 + length <= packet.size(), "an item ends inside its set");
    require(tag != 2 || items.empty(), "the time stamp comes first");
    const auto begin = packet.begin() + static_cast<std::ptrdiff_t>(at + 2);
    require(items.emplace(tag, Bytes(begin, begin + static_cast<std::ptrdiff_t>(length))).second,
            "no item comes twice");
    at += 2 + length;
  }
  require(tag == 1 && items[1].size() == 2, "the checksum comes last");
  std::uint64_t sum = 0;
  for (std::size_t i = 0; i + 2 < packet.size(); ++i) {
    sum += std::uint64_t{packet[i]} << (i % 2 == 0 ? 8U : 0U);
  }
  require(number(items[1]) == sum % 65536, "the checksum");
  return items;
}

lumora::LumoraPicture::MetadataValue anyValue(FuzzedDataProvider& data, const Item& item) {
  switch (data.ConsumeIntegralInRange(0, 4)) {
    case 0:
      return data.ConsumeFloatingPointInRange(item.low, item.high);
    case 1:
      return data.ConsumeFloatingPoint<double>();
    case 2: {
      const auto bits = data.ConsumeIntegral<std::uint64_t>();
      double value = 0;
      std::memcpy(&value, &bits, sizeof(value));
      return value;
    }
    case 3:
      return data.ConsumeIntegral<std::int64_t>();
    default:
      return data.ConsumeRandomLengthString(8);
  }
}

// The value that an item's bytes stand for.
double meaning(const Item& item, const Bytes& bytes) {
  const double range = std::ldexp(1.0, static_cast<int>(8 * item.bytes));
  auto value = static_cast<double>(number(bytes));
  if (item.isSigned) {
    return (value >= range / 2 ? value - range : value) * item.high / (range / 2 - 1);
  }
  return item.low + value * (item.high - item.low) / (range - 1);
}

void checkItem(const Item& item, const double* value, const Bytes* bytes) {
  const bool isNumber = value != nullptr && std::isfinite(*value);
  const bool inRange = isNumber && (item.isAngle || (*value >= item.low && *value <= item.high));
  if (!inRange && !(item.isSigned && value != nullptr)) {
    require(bytes == nullptr, "what cannot be said is left out");
    return;
  }
  require(bytes != nullptr && bytes->size() == item.bytes, "an item of its own length");
  if (!inRange) {
    require(number(*bytes) == std::uint64_t{1} << (8 * item.bytes - 1), "the out of range code");
    return;
  }
  const double resolution =
      (item.high - item.low) / (std::ldexp(1.0, static_cast<int>(8 * item.bytes)) - 2);
  const double difference = meaning(item, *bytes) - *value;
  const double error = item.isAngle ? std::remainder(difference, 360.0) : difference;
  // An angle of many turns is as coarse as its double.
  const double slack = 1e-9 + (item.isAngle ? std::abs(*value) * 1e-15 : 0);
  require(std::abs(error) <= resolution * 0.5 + slack, "a value to half its resolution");
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* bytes, std::size_t size) {
  FuzzedDataProvider data(bytes, size);
  static const Bytes kPixels(6);
  const auto picture = lumora::LumoraPicture::fromNv12Host(kPixels.data(), 2, 2, 2);
  const bool hasTime = data.ConsumeBool();
  const auto time = data.ConsumeIntegral<std::int64_t>();
  if (hasTime) {
    picture->setMetadata(Keys::kUtcTimestampUs, time);
  }
  for (const Item& item : kItems) {
    if (data.ConsumeBool()) {
      picture->setMetadata(item.key, anyValue(data, item));
    }
  }

  const std::map<int, Bytes> items = takeApart(station::encodeMisbSt0601(*picture));
  const auto find = [&items](int tag) {
    const auto found = items.find(tag);
    return found != items.end() ? &found->second : nullptr;
  };
  require((find(2) != nullptr) == hasTime, "a time stamp, if there is one");
  require(
      !hasTime || (find(2)->size() == 8 && number(*find(2)) == static_cast<std::uint64_t>(time)),
      "the time stamp");
  require(find(65) != nullptr && number(*find(65)) == 17, "the standard's revision");
  for (const Item& item : kItems) {
    const auto* const value = picture->metadata(item.key);
    checkItem(item, value != nullptr ? std::get_if<double>(value) : nullptr, find(item.tag));
  }
  return 0;
}
