#pragma once

#include <chrono>
#include <cstdint>
#include <string>
#include <vector>

namespace station {

struct OpusPacket {
  std::vector<std::uint8_t> payload;
  std::chrono::nanoseconds duration;
};

// The Opus packets of an Ogg or Matroska file, in order. Throws StationError (Source) if the file
// cannot be read, has no Opus track, or has one that is not mono at 48000 Hz, as the recorder
// takes it.
std::vector<OpusPacket> readOpusFile(const std::string& path);

}  // namespace station
