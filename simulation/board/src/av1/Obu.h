#pragma once

#include <array>
#include <cstddef>
#include <cstdint>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

namespace simulated_board {

// An open bitstream unit (OBU) of a temporal unit, in the form that RTP carries: `header` has
// obu_has_size_field cleared, and no size field follows it.
struct Obu {
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

// Parameters from a sequence header, as AV1 codes them.
struct Av1SequenceHeader {
  unsigned profile = 0;
  unsigned tier = 0;
  int level = -1;             // -1: the stream marks it as irrelevant
  bool stillPicture = false;  // reduced_still_picture_header: frames carry no type
};

// Colours of a sequence, as code points of ITU-T H.273.
struct Av1Colours {
  unsigned primaries = 2;  // 2: unspecified, likewise the next two
  unsigned transfer = 2;
  unsigned matrix = 2;
  bool fullRange = false;
};

// Splits a temporal unit in the low-overhead bitstream format. False with a text in `error` if it
// is malformed.
bool splitTemporalUnit(std::string_view stream, std::vector<Obu>& obus, std::string& error);

// Empty if the payload is truncated.
std::optional<Av1SequenceHeader> parseSequenceHeader(std::string_view payload);

// Returns the sequence header with these colours instead of its own; not for the identity matrix.
std::string withColours(std::string_view payload, const Av1Colours& colours);

// Whether the temporal unit starts a coded video sequence, where decoding can begin.
bool startsCodedVideoSequence(std::string_view stream, const std::vector<Obu>& obus);

// Appends `obu` with another payload, in the low-overhead bitstream format.
void appendWithSize(const Obu& obu, std::string_view payload, std::string& bytes);

// Length of `value` as leb128, in bytes.
std::size_t leb128Size(std::size_t value);
// Appends `value` as leb128.
void appendLeb128(std::size_t value, std::string& bytes);

}  // namespace simulated_board
