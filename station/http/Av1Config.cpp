#include "http/Av1Config.h"

#include <array>
#include <cstdint>
#include <cstdio>

#include <gst/base/gstbitreader.h>

namespace station {
namespace {

constexpr unsigned int kSequenceHeader = 1;  // type of OBU

std::uint8_t byteAt(std::string_view bytes, std::size_t place) {
  return static_cast<std::uint8_t>(bytes[place]);
}

struct Level {
  unsigned int profile, level, tier;
};

// The begin of a sequence header (AV1 Bitstream & Decoding Process Specification, 5.5).
Level readLevel(std::string_view header) {
  GstBitReader reader;
  gst_bit_reader_init(&reader, reinterpret_cast<const guint8*>(header.data()),
                      static_cast<guint>(header.size()));
  const auto take = [&](guint bits) {
    guint32 value = 0;
    return gst_bit_reader_get_bits_uint32(&reader, &value, bits) != FALSE ? value : 0;
  };
  Level level{take(3), 0, 0};
  take(1);
  const bool isReduced = take(1) != 0;
  if (!isReduced && take(1) != 0) {  // timing
    take(32), take(32);
    if (take(1) != 0) {  // a number of variable length
      guint zeros = 0;
      while (zeros < 31 && take(1) == 0) {
        ++zeros;
      }
      take(zeros);
    }
    if (take(1) != 0) {  // decoder model
      take(32), take(15);
    }
  }
  if (!isReduced) {
    take(1 + 5 + 12);  // up to the first operating point
  }
  level.level = take(5);
  level.tier = !isReduced && level.level > 7 ? take(1) : 0;
  return level;
}

Av1Config describe(const Level& level, std::string_view obu, const GstCaps* caps) {
  const GstStructure* const format = gst_caps_get_structure(caps, 0);
  guint depth = 8;
  gst_structure_get_uint(format, "bit-depth-luma", &depth);
  const gchar* const text = gst_structure_get_string(format, "chroma-format");
  const std::string chroma = text != nullptr ? text : "4:2:0";
  const unsigned int mono = chroma == "4:0:0" ? 1 : 0;
  const unsigned int halvesX = chroma != "4:4:4" ? 1 : 0;
  const unsigned int halvesY = mono != 0 || chroma == "4:2:0" ? 1 : 0;
  const std::array<unsigned int, 4> fields = {0x81,  // marker and version
                                              level.profile << 5 | level.level,
                                              level.tier << 7 | (depth > 8 ? 1U : 0) << 6 |
                                                  (depth > 10 ? 1U : 0) << 5 | mono << 4 |
                                                  halvesX << 3 | halvesY << 2,
                                              0};
  std::array<char, 32> codecs{};
  std::snprintf(codecs.data(), codecs.size(), "av01.%u.%02u%c.%02u", level.profile, level.level,
                level.tier != 0 ? 'H' : 'M', depth);
  return {std::string(fields.begin(), fields.end()).append(obu), codecs.data()};
}

}  // namespace

std::optional<Av1Config> Av1Config::of(std::string_view temporalUnit, const GstCaps* caps) {
  while (temporalUnit.size() > 2) {
    const unsigned int head = byteAt(temporalUnit, 0);
    std::size_t payload =
        (head >> 2 & 1) != 0 ? 2 : 1;  // behind an extension, then behind the size
    std::size_t size = 0;
    for (unsigned int shift = 0; shift < 56 && payload < temporalUnit.size(); shift += 7) {
      const unsigned int byte = byteAt(temporalUnit, payload++);
      size |= std::size_t{byte & 0x7F} << shift;
      if (byte < 0x80) {
        break;
      }
    }
    const std::string_view obu = temporalUnit.substr(0, payload + size);
    if ((head >> 3 & 15) == kSequenceHeader) {
      return describe(readLevel(obu.substr(payload)), obu, caps);
    }
    temporalUnit.remove_prefix(obu.size());
  }
  return std::nullopt;
}

}  // namespace station
