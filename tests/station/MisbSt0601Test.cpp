#include "record/KlvEncoder.h"

#include <gtest/gtest.h>

#include <cmath>
#include <limits>
#include <map>
#include <optional>
#include <string>
#include <vector>

namespace {

using Keys = lumora::LumoraPicture::BaseMetadata::Keys;
using Bytes = std::vector<std::uint8_t>;

std::shared_ptr<lumora::LumoraPicture> blankPicture() {
  const Bytes pixels(6, 0);
  return lumora::LumoraPicture::fromNv12Host(pixels.data(), 2, 2, 2);
}

std::uint64_t number(const Bytes& bytes) {
  std::uint64_t value = 0;
  for (const std::uint8_t byte : bytes) {
    value = value << 8 | byte;
  }
  return value;
}

// Takes a packet apart, whose key, length and checksum scripts/judge looks at in recordings.
std::map<int, Bytes> decode(const Bytes& packet) {
  std::map<int, Bytes> items;
  for (std::size_t at = 17; at < packet.size(); at += 2U + packet.at(at + 1)) {
    const auto begin = packet.begin() + static_cast<std::ptrdiff_t>(at) + 2;
    items[packet.at(at)] = Bytes(begin, begin + packet.at(at + 1));
  }
  return items;
}

// The standard's own worked example of each item.
TEST(MisbSt0601, EncodesTheStandardsExamples) {
  struct Row {
    int tag;
    const std::string& key;
    double value;
    std::uint64_t encoded;
  };
  const Row rows[] = {
      {5, Keys::kYawDeg, 159.9744, 0x71C2},
      {6, Keys::kPitchDeg, -0.4315317, 0xFD3D},
      {7, Keys::kRollDeg, 3.405814, 0x08B8},
      {13, Keys::kSensorLatDeg, 60.1768229669783, 0x5595B66D},
      {14, Keys::kSensorLonDeg, 128.426759042045, 0x5B5360C4},
      {15, Keys::kSensorAltM, 14190.72, 0xC221},
      {16, Keys::kHfovDeg, 144.5713, 0xCD9C},
      {17, Keys::kVfovDeg, 152.6436, 0xD917},
      {18, Keys::kPanDeg, 160.719211474396, 0x724A0A20},
      {19, Keys::kTiltDeg, -168.792324833941, 0x87F84B86},
      {21, Keys::kMeasuredSlantRangeM, 68590.983298744, 0x03830926},
      {23, Keys::kFrameCenterLatDeg, -10.5423886331461, 0xF101A229},
      {24, Keys::kFrameCenterLonDeg, 29.157890122923, 0x14BC082B},
      {25, Keys::kFrameCenterElevM, 3216.037, 0x34F3},
  };
  const auto picture = blankPicture();
  picture->setMetadata(Keys::kUtcTimestampUs, std::int64_t{1224807209913000});
  for (const Row& row : rows) {
    picture->setMetadata(row.key, row.value);
  }
  const Bytes packet = station::encodeMisbSt0601(*picture);
  EXPECT_EQ(packet.at(17), 2) << "the time stamp comes first";
  auto items = decode(packet);
  EXPECT_EQ(number(items[2]), 1224807209913000U);
  for (const Row& row : rows) {
    EXPECT_EQ(number(items[row.tag]), row.encoded) << row.key;
  }
}

// A value that an item cannot say is left out, or is the item's code for out of range.
TEST(MisbSt0601, MarksOrLeavesOutWhatDoesNotFit) {
  constexpr double kInfinity = std::numeric_limits<double>::infinity();
  struct Row {
    int tag;
    const std::string& key;
    lumora::LumoraPicture::MetadataValue value;
    std::optional<std::uint64_t> encoded;
  };
  const Row rows[] = {
      {5, Keys::kYawDeg, -90.0, 0xBFFF},  // 270 degrees
      {5, Keys::kYawDeg, std::nan(""), {}},
      {6, Keys::kPitchDeg, std::nan(""), 0x8000},
      {7, Keys::kRollDeg, 50.1, 0x8000},
      {13, Keys::kSensorLatDeg, -90.5, 0x80000000},
      {14, Keys::kSensorLonDeg, kInfinity, 0x80000000},
      {15, Keys::kSensorAltM, 19000.5, {}},
      {16, Keys::kHfovDeg, -1.0, {}},
      {17, Keys::kVfovDeg, std::string("wide"), {}},
      {18, Keys::kPanDeg, 360.0 * 1000000 + 180, 0x80000000},  // turns
      {19, Keys::kTiltDeg, std::int64_t{1}, {}},
      {21, Keys::kMeasuredSlantRangeM, -kInfinity, {}},
  };
  for (const Row& row : rows) {
    const auto picture = blankPicture();
    picture->setMetadata(row.key, row.value);
    auto items = decode(station::encodeMisbSt0601(*picture));
    ASSERT_EQ(items.size(), row.encoded ? 3U : 2U) << row.key << ", besides version and checksum";
    EXPECT_EQ(number(items[row.tag]), row.encoded.value_or(0)) << row.key;
  }
}

}  // namespace
