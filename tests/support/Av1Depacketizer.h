#pragma once

#include <stdexcept>
#include <string>
#include <string_view>
#include <vector>

// Temporal units out of RTP packets that come in order and without loss, by the RTP payload format
// for AV1. Throws where a packet is not as the format has it.
class Av1Depacketizer {
 public:
  using TemporalUnit = std::vector<std::string>;  // OBUs without size fields

  void take(std::string_view packet) {
    const auto header = static_cast<unsigned char>(packet.at(12));
    const unsigned count = header >> 4 & 3;
    require(((header & 0x80) != 0) == isCut_, "Z says what the Y before it did");
    if (isComplete_) {
      units_.emplace_back();
    }
    TemporalUnit& obus = units_.back();
    unsigned elements = 0;
    for (std::size_t position = 13; position < packet.size(); ++elements) {
      const bool isSized = count == 0 || elements + 1 < count;
      const std::size_t size = isSized ? readLeb128(packet, position) : packet.size() - position;
      require(size > 0 && size <= packet.size() - position, "elements fit");
      if (elements > 0 || !isCut_) {
        obus.emplace_back();
      }
      obus.back().append(packet.substr(position, size));
      position += size;
    }
    require(elements > 0 && (count == 0 || elements == count), "as many elements as W says");
    isCut_ = (header & 0x40) != 0;
    isComplete_ = (packet.at(1) & 0x80) != 0;
    require(!isCut_ || !isComplete_, "the marker's unit is complete");
  }

  // The last one is complete only if isComplete().
  const std::vector<TemporalUnit>& units() const { return units_; }
  bool isComplete() const { return isComplete_; }

 private:
  static void require(bool condition, const char* what) {
    if (!condition) {
      throw std::runtime_error(what);
    }
  }

  static std::size_t readLeb128(std::string_view bytes, std::size_t& position) {
    std::size_t value = 0;
    for (unsigned shift = 0; shift < 56; shift += 7) {
      const auto byte = static_cast<unsigned char>(bytes.at(position++));
      value |= std::size_t{byte & 0x7fU} << shift;
      if (byte < 0x80) {
        return value;
      }
    }
    throw std::runtime_error("a leb128 number is too long");
  }

  std::vector<TemporalUnit> units_;
  bool isComplete_ = true;
  bool isCut_ = false;  // the next packet continues the last OBU
};

// The way back: a temporal unit, of OBUs without layers, in the low overhead format.
inline std::string lowOverhead(const Av1Depacketizer::TemporalUnit& obus) {
  std::string stream("\x12\0", 2);
  for (const std::string& obu : obus) {
    stream.push_back(static_cast<char>(obu.at(0) | 2));
    std::size_t rest = obu.size() - 1;
    for (; rest >= 0x80; rest >>= 7) {
      stream.push_back(static_cast<char>(rest | 0x80));
    }
    stream.push_back(static_cast<char>(rest));
    stream.append(obu, 1);
  }
  return stream;
}
