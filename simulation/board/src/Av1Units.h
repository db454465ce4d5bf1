#pragma once

#include <array>
#include <cstddef>
#include <cstdint>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

namespace simulated_board {

// An open bitstream unit (OBU) inside a temporal unit, in the form it has in RTP: the header says
// that no size field follows, and none does.
struct Av1Unit {
  enum Type : unsigned {
    SequenceHeader = 1,
    TemporalDelimiter = 2,
    FrameHeader = 3,
    Frame = 6,
    TileList = 8
  };

  std::size_t size() const { return headerSize + payloadSize; }
  bool hasLayer() const { return headerSize == 2; }
  unsigned layer() const { return unsigned{header[1]} >> 3; }  // temporal and spatial id, or 0

  unsigned type = 0;
  std::array<std::uint8_t, 2> header = {};
  std::size_t headerSize = 1;
  std::size_t payloadBegin = 0;  // in the temporal unit
  std::size_t payloadSize = 0;
};

// What a sequence header says of the stream, in the numbers of AV1's own syntax.
struct Av1SequenceHeader {
  unsigned profile = 0;
  unsigned tier = 0;
  int level = -1;             // -1 where it is set not to matter
  bool stillPicture = false;  // of the reduced kind, whose frames have no type
};

// Splits a temporal unit of the low overhead format. False with a text in `error` if it is
// malformed.
bool splitTemporalUnit(std::string_view stream, std::vector<Av1Unit>& units, std::string& error);

// None if the payload ends too soon.
std::optional<Av1SequenceHeader> parseSequenceHeader(std::string_view payload);

// Whether the temporal unit is the first one of a coded video sequence: decoding can begin here.
bool startsCodedVideoSequence(std::string_view stream, const std::vector<Av1Unit>& units);

// Bytes that `value` takes as leb128, and these bytes put behind `bytes`.
std::size_t leb128Size(std::size_t value);
void appendLeb128(std::size_t value, std::string& bytes);

}  // namespace simulated_board
