#include "Obu.h"

#include <utility>

namespace simulated_board {
namespace {

constexpr unsigned kForbiddenBit = 0x80;
constexpr unsigned kExtensionBit = 0x04;
constexpr unsigned kSizeBit = 0x02;

unsigned byteAt(std::string_view bytes, std::size_t index) {
  return static_cast<unsigned char>(bytes[index]);
}

// Reads a leb128 number at `position` and advances past it. False if it is incomplete or exceeds
// the 32 bits that AV1 allows.
bool readLeb128(std::string_view stream, std::size_t& position, std::size_t& value) {
  std::uint64_t number = 0;
  for (unsigned i = 0; i < 8 && position < stream.size(); ++i) {
    const unsigned byte = byteAt(stream, position++);
    number |= std::uint64_t{byte & 0x7f} << 7 * i;
    if ((byte & 0x80) == 0) {
      value = static_cast<std::size_t>(number);
      return number <= UINT32_MAX;
    }
  }
  return false;
}

// Reads the OBU at `position` and advances past it. Returns the fault, null if there is none.
const char* readObu(std::string_view stream, std::size_t& position, Obu& obu) {
  const unsigned header = byteAt(stream, position++);
  if ((header & kForbiddenBit) != 0) {
    return "its forbidden bit is set";
  }
  obu.type = header >> 3 & 0xf;
  obu.header[0] = static_cast<std::uint8_t>(header & ~kSizeBit);
  if ((header & kExtensionBit) != 0) {
    if (position == stream.size()) {
      return "its extension header is missing";
    }
    obu.header[obu.headerSize++] = static_cast<std::uint8_t>(byteAt(stream, position++));
  }
  obu.payloadSize = stream.size() - position;
  if ((header & kSizeBit) != 0 && !readLeb128(stream, position, obu.payloadSize)) {
    return "its size field is malformed";
  }
  if (obu.payloadSize > stream.size() - position) {
    return "it is longer than the temporal unit";
  }
  obu.payloadBegin = position;
  position += obu.payloadSize;
  return nullptr;
}

std::string_view payloadOf(std::string_view stream, const Obu& obu) {
  return stream.substr(obu.payloadBegin, obu.payloadSize);
}

// Reads bits in the order of AV1, most significant first. Bits past the end are zero.
class BitReader {
 public:
  explicit BitReader(std::string_view bytes) : bytes_(bytes) {}

  std::uint64_t read(unsigned bits) {
    std::uint64_t value = 0;
    for (; bits > 0; --bits, ++position_) {
      value = value << 1 | (position_ / 8 < bytes_.size()
                                ? byteAt(bytes_, position_ / 8) >> (7 - position_ % 8) & 1
                                : 0);
    }
    return value;
  }
  bool flag() { return read(1) != 0; }
  void skip(std::size_t bits) { position_ += bits; }
  void skipExpGolomb() {
    std::size_t zeros = 0;
    while (!past() && !flag()) {
      ++zeros;
    }
    skip(zeros);
  }
  bool past() const { return position_ > bytes_.size() * 8; }
  std::size_t position() const { return position_; }
  std::size_t left() const { return bytes_.size() * 8 - position_; }

 private:
  std::string_view bytes_;
  std::size_t position_ = 0;
};

// Writes bits in the same order.
class BitWriter {
 public:
  void write(std::uint64_t value, unsigned bits) {
    for (; bits > 0; --bits, ++count_) {
      if (count_ % 8 == 0) {
        bytes_.push_back('\0');
      }
      bytes_.back() = static_cast<char>(byteAt(bytes_, count_ / 8) | (value >> (bits - 1) & 1)
                                                                         << (7 - count_ % 8));
    }
  }
  void copy(BitReader& from, std::size_t bits) {
    for (; bits > 0; --bits) {
      write(from.read(1), 1);
    }
  }
  std::string take() { return std::move(bytes_); }

 private:
  std::string bytes_;
  std::size_t count_ = 0;
};

// Returns the length of the decoder model's delays in bits, 0 without a model.
unsigned skipTiming(BitReader& bits) {
  if (!bits.flag()) {
    return 0;
  }
  bits.skip(64);  // units in a tick, ticks in a second
  if (bits.flag()) {
    bits.skipExpGolomb();  // ticks in a picture
  }
  if (!bits.flag()) {
    return 0;
  }
  const auto delayBits = static_cast<unsigned>(bits.read(5)) + 1;
  bits.skip(32 + 5 + 5);
  return delayBits;
}

// Of a sequence header that is not reduced, after its first flags.
void skipOperatingPoints(BitReader& bits) {
  const unsigned delayBits = skipTiming(bits);
  const bool hasDisplayDelay = bits.flag();
  for (auto points = bits.read(5) + 1; points > 0; --points) {
    bits.skip(12);
    if (bits.read(5) > 7) {
      bits.skip(1);  // tier
    }
    if (delayBits > 0 && bits.flag()) {
      bits.skip(2 * delayBits + 1);
    }
    if (hasDisplayDelay && bits.flag()) {
      bits.skip(4);
    }
  }
}

// Of a sequence header that is not reduced: which tools its frames use.
void skipFrameTools(BitReader& bits) {
  bits.skip(4);  // compounds, warped motion, dual filter
  const bool ordered = bits.flag();
  if (ordered) {
    bits.skip(2);
  }
  const bool choosesScreenTools = bits.flag();
  if ((choosesScreenTools || bits.flag()) && !bits.flag()) {
    bits.skip(1);  // integer motion vectors
  }
  if (ordered) {
    bits.skip(3);
  }
}

// From the start of a sequence header to color_description_present_flag.
void skipToColours(BitReader& bits) {
  const auto profile = bits.read(3);
  bits.skip(1);
  const bool reduced = bits.flag();
  if (reduced) {
    bits.skip(5);  // level
  } else {
    skipOperatingPoints(bits);
  }
  const auto widthBits = bits.read(4) + 1;
  const auto heightBits = bits.read(4) + 1;
  bits.skip(widthBits + heightBits);
  if (!reduced && bits.flag()) {
    bits.skip(7);  // frame numbers
  }
  bits.skip(3);  // superblock, intra tools
  if (!reduced) {
    skipFrameTools(bits);
  }
  bits.skip(3);  // super-resolution, filters
  if (bits.flag() && profile == 2) {
    bits.skip(1);  // bit depth
  }
  if (profile != 1) {
    bits.skip(1);  // monochrome
  }
}

}  // namespace

bool splitTemporalUnit(std::string_view stream, std::vector<Obu>& obus, std::string& error) {
  for (std::size_t position = 0; position < stream.size();) {
    const std::size_t begin = position;
    Obu obu;
    const char* const wrong = readObu(stream, position, obu);
    if (wrong == nullptr) {
      obus.push_back(obu);
      continue;
    }
    error = "OBU " + std::to_string(obus.size()) + ", at byte " + std::to_string(begin) + " of " +
            std::to_string(stream.size()) + ": " + wrong;
    return false;
  }
  return true;
}

std::optional<Av1SequenceHeader> parseSequenceHeader(std::string_view payload) {
  BitReader bits(payload);
  Av1SequenceHeader header;
  header.profile = static_cast<unsigned>(bits.read(3));
  bits.skip(1);  // still picture
  header.stillPicture = bits.flag();
  bool levelMatters = true;
  if (!header.stillPicture) {
    skipTiming(bits);
    bits.skip(1);  // initial display delay
    const bool onePoint = bits.read(5) == 0;
    levelMatters = bits.read(12) != 0xfff || !onePoint;
  }
  // Operating point 0 includes all layers, so its level is the highest.
  const auto level = static_cast<int>(bits.read(5));
  header.tier = !header.stillPicture && level > 7 && bits.flag() ? 1 : 0;
  if (levelMatters || level != 0) {
    header.level = level;
  }
  return bits.past() ? std::nullopt : std::make_optional(header);
}

std::string withColours(std::string_view payload, const Av1Colours& colours) {
  BitReader place(payload);
  skipToColours(place);
  BitReader bits(payload);
  BitWriter result;
  result.copy(bits, place.position());
  if (bits.flag()) {
    bits.skip(24);
  }
  bits.skip(1);  // range
  result.write(1, 1);
  result.write(colours.primaries, 8);
  result.write(colours.transfer, 8);
  result.write(colours.matrix, 8);
  result.write(colours.fullRange ? 1 : 0, 1);
  result.copy(bits, bits.left());
  return result.take();
}

bool startsCodedVideoSequence(std::string_view stream, const std::vector<Obu>& obus) {
  std::optional<Av1SequenceHeader> sequence;
  for (const Obu& obu : obus) {
    if (obu.type == Obu::SequenceHeader) {
      sequence = parseSequenceHeader(payloadOf(stream, obu));
    } else if (obu.type == Obu::Frame || obu.type == Obu::FrameHeader) {
      const std::string_view payload = payloadOf(stream, obu);
      const bool baseLayer = obu.layer() >> 2 == 0;
      // show_existing_frame 0, frame_type KEY_FRAME (0), show_frame 1: the first four bits.
      return sequence && baseLayer && !payload.empty() &&
             (sequence->stillPicture || byteAt(payload, 0) >> 4 == 1);
    }
  }
  return false;
}

void appendWithSize(const Obu& obu, std::string_view payload, std::string& bytes) {
  bytes.push_back(static_cast<char>(obu.header[0] | kSizeBit));
  if (obu.hasLayer()) {
    bytes.push_back(static_cast<char>(obu.header[1]));
  }
  appendLeb128(payload.size(), bytes);
  bytes.append(payload);
}

std::size_t leb128Size(std::size_t value) {
  std::size_t size = 1;
  for (; value >= 0x80; value >>= 7) {
    ++size;
  }
  return size;
}

void appendLeb128(std::size_t value, std::string& bytes) {
  for (; value >= 0x80; value >>= 7) {
    bytes.push_back(static_cast<char>((value & 0x7f) | 0x80));
  }
  bytes.push_back(static_cast<char>(value));
}

}  // namespace simulated_board
