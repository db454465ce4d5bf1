#pragma once

#include <cstddef>
#include <cstdint>
#include <vector>

namespace station {

// Keys, lengths and values as SMPTE ST 336 writes them.

using Bytes = std::vector<std::uint8_t>;

// The last `size` bytes of a number, the highest first.
void appendNumber(Bytes& bytes, std::uint64_t value, std::size_t size);
std::uint64_t numberOf(const Bytes& bytes);

// A BER length, in its short form below 128.
void appendLength(Bytes& bytes, std::size_t length);

// An item of a local set; its tag is below 128.
void appendItem(Bytes& set, std::uint8_t tag, const Bytes& value);

// Reads one thing after the other. Everything throws std::out_of_range at the end of the bytes.
class KlvReader {
 public:
  explicit KlvReader(const Bytes& bytes) : bytes_(bytes) {}

  bool atEnd() const { return at_ == bytes_.size(); }
  std::size_t position() const { return at_; }
  Bytes take(std::size_t size);
  std::uint64_t takeTag();  // BER-OID
  std::size_t takeLength();

 private:
  const Bytes& bytes_;
  std::size_t at_ = 0;
};

// The sum of a packet's 16-bit words, over everything before the checksum's own value.
std::uint16_t klvChecksum(const std::uint8_t* packet, std::size_t size);

}  // namespace station
