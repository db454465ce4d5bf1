#pragma once

#include <cstdint>
#include <optional>
#include <stdexcept>
#include <string>
#include <string_view>
#include <vector>

// AV1 out of RTP packets that come in order and without loss, by the RTP payload format for AV1.
// Throws where a packet is not as the format has it.

inline void require(bool condition, const char* what) {
  if (!condition) {
    throw std::runtime_error(what);
  }
}

inline unsigned av1Byte(std::string_view bytes, std::size_t index) {
  require(index < bytes.size(), "the data ends too soon");
  return static_cast<unsigned char>(bytes[index]);
}

inline std::size_t readLeb128(std::string_view bytes, std::size_t& position) {
  std::size_t value = 0;
  for (unsigned shift = 0; shift < 56; shift += 7) {
    const unsigned byte = av1Byte(bytes, position++);
    value |= std::size_t{byte & 0x7f} << shift;
    if (byte < 0x80) {
      return value;
    }
  }
  throw std::runtime_error("a leb128 number is too long");
}

class Av1Depacketizer {
 public:
  struct TemporalUnit {
    std::uint32_t timestamp;
    bool startsSequence;
    std::vector<std::string> obus;  // without size fields
  };

  void take(std::string_view packet) {
    require(av1Byte(packet, 0) == 0x80, "RTP version 2 with nothing optional");
    require((av1Byte(packet, 1) & 0x7f) == 96, "payload type 96");
    const unsigned sequence = number(packet, 2, 2);
    require(!sequence_ || sequence == ((*sequence_ + 1) & 0xffff), "sequence numbers go on");
    sequence_ = sequence;
    takePayload(packet.substr(12), number(packet, 4, 4));
    if ((av1Byte(packet, 1) & 0x80) != 0) {
      require(!cut_, "the marker's unit is complete");
      checkUnits();
      open_ = false;
    }
  }

  // The last one is complete only if isComplete().
  const std::vector<TemporalUnit>& units() const { return units_; }
  bool isComplete() const { return !open_; }

 private:
  static unsigned number(std::string_view bytes, std::size_t begin, std::size_t size) {
    unsigned value = 0;
    for (std::size_t i = begin; i < begin + size; ++i) {
      value = value << 8 | av1Byte(bytes, i);
    }
    return value;
  }

  void takePayload(std::string_view payload, std::uint32_t timestamp) {
    const unsigned header = av1Byte(payload, 0);
    const bool continues = (header & 0x80) != 0;
    const std::size_t count = header >> 4 & 3;
    require((header & 7) == 0, "reserved bits are 0");
    require(continues == cut_, "Z says what the Y before it did");
    if (!open_) {
      units_.push_back({timestamp, (header & 8) != 0, {}});
      open_ = true;
    } else {
      require(timestamp == units_.back().timestamp, "one timestamp a temporal unit");
      require((header & 8) == 0, "N only in a temporal unit's first packet");
    }
    std::vector<std::string>& obus = units_.back().obus;
    std::size_t elements = 0;
    for (std::size_t position = 1; position < payload.size(); ++elements) {
      require(count == 0 || elements < count, "no more elements than W says");
      const bool sized = count == 0 || elements + 1 < count;
      const std::size_t size = sized ? readLeb128(payload, position) : payload.size() - position;
      require(size > 0 && size <= payload.size() - position, "elements fit");
      if (elements > 0 || !continues) {
        obus.emplace_back();
      }
      obus.back().append(payload.substr(position, size));
      position += size;
    }
    require(elements > 0 && (count == 0 || elements == count), "as many elements as W says");
    cut_ = (header & 0x40) != 0;
  }

  void checkUnits() {
    for (const std::string& obu : units_.back().obus) {
      const unsigned type = av1Byte(obu, 0) >> 3;
      require((av1Byte(obu, 0) & 2) == 0, "no size fields");
      require(type != 2 && type != 8, "no temporal delimiters and tile lists");
    }
  }

  std::vector<TemporalUnit> units_;
  std::optional<unsigned> sequence_;
  bool open_ = false;  // more of the last temporal unit comes
  bool cut_ = false;   // more of its last OBU comes
};

// The OBUs of a temporal unit in the low overhead format, as they go over RTP.
inline std::vector<std::string> obusOverRtp(std::string_view stream) {
  std::vector<std::string> obus;
  for (std::size_t position = 0; position < stream.size();) {
    const unsigned header = av1Byte(stream, position);
    const std::size_t headerSize = (header & 4) != 0 ? 2 : 1;
    std::string obu(stream.substr(position, headerSize));
    obu[0] = static_cast<char>(header & ~2u);
    position += headerSize;
    require((header & 2) != 0, "a size field");
    const std::size_t size = readLeb128(stream, position);
    require(size <= stream.size() - position, "OBUs fit");
    obu.append(stream.substr(position, size));
    position += size;
    if (header >> 3 != 2) {
      obus.push_back(obu);
    }
  }
  return obus;
}

// The way back: a temporal unit in the low overhead format.
inline std::string lowOverhead(const std::vector<std::string>& obus) {
  std::string stream("\x12\0", 2);
  for (const std::string& obu : obus) {
    const std::size_t headerSize = (av1Byte(obu, 0) & 4) != 0 ? 2 : 1;
    stream.append(obu, 0, headerSize);
    stream[stream.size() - headerSize] = static_cast<char>(av1Byte(obu, 0) | 2);
    std::size_t rest = obu.size() - headerSize;
    for (; rest >= 0x80; rest >>= 7) {
      stream.push_back(static_cast<char>((rest & 0x7f) | 0x80));
    }
    stream.push_back(static_cast<char>(rest));
    stream.append(obu, headerSize);
  }
  return stream;
}
