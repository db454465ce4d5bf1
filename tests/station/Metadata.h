#pragma once

#include <memory>

#include <gtest/gtest.h>
#include <lumora/LumoraPicture.h>
#include <nlohmann/json.hpp>

#include "metadata/MisbSt0601.h"

inline std::shared_ptr<lumora::LumoraPicture> blankPicture() {
  const station::Bytes pixels(6, 0);
  return lumora::LumoraPicture::fromNv12Host(pixels.data(), 2, 2, 2);
}

// What an undamaged packet says.
inline nlohmann::ordered_json decoded(const station::Bytes& packet) {
  std::size_t size = 0;
  nlohmann::ordered_json json = station::MisbSt0601::decode(packet, size);
  EXPECT_EQ(size, packet.size());
  EXPECT_FALSE(json.contains("error")) << json;
  return json;
}
