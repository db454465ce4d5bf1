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

// The Opus packets of an Ogg or Matroska file, in order. Throws StationError (Source) for a file
// that is unreadable, has no Opus track, or one that is not mono at 48000 Hz, which the recorder
// takes.
std::vector<OpusPacket> readOpusFile(const std::string& path);

}  // namespace station
