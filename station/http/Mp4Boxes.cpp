#include "http/Mp4Boxes.h"

#include <cstring>

#include <gst/gst.h>

namespace station {
namespace {

constexpr guint32 kSampleRate = 48000;  // of all Opus

void setNumber(std::string& bytes, std::size_t offset, std::uint32_t number) {
  number = GUINT32_TO_BE(number);
  std::memcpy(bytes.data() + offset, &number, sizeof(number));
}

}  // namespace

std::uint32_t mp4NumberAt(const std::string& bytes, std::size_t offset) {
  std::uint32_t number = 0;
  std::memcpy(&number, bytes.data() + offset, sizeof(number));
  return GUINT32_FROM_BE(number);
}

// The flags are the last field of tfhd.
bool isKeyFragment(const std::string& moof) {
  constexpr std::size_t kTrackNumber = 44;  // after the heads of moof, mfhd, traf and tfhd
  constexpr std::uint32_t kNonSync = 0x10000;
  const std::size_t end = kTrackNumber - 12 + mp4NumberAt(moof, kTrackNumber - 12);
  return mp4NumberAt(moof, kTrackNumber) == 1 && (mp4NumberAt(moof, end - 4) & kNonSync) == 0;
}

void correctOpusRate(std::string& header) {
  const std::size_t box = header.find("dOps");
  constexpr std::size_t kRateOffset = 8;  // after type, version, channels and pre-skip
  if (box != std::string::npos && box + kRateOffset + 4 <= header.size()) {
    setNumber(header, box + kRateOffset, kSampleRate);
  }
}

void replaceAv1Config(std::string& header, const std::string& config) {
  const std::size_t type = header.find("av1C");
  if (type == std::string::npos) {
    return;
  }
  const std::size_t box = type - 4;
  const std::size_t written = mp4NumberAt(header, box) - kMp4BoxHead;
  header.replace(box + kMp4BoxHead, written, config);
  // The box and those around it; the track is the first.
  std::size_t place = 0;
  for (const char* const around :
       {"moov", "trak", "mdia", "minf", "stbl", "stsd", "av01", "av1C"}) {
    place = header.find(around, place);
    const std::size_t size = mp4NumberAt(header, place - 4) + config.size() - written;
    setNumber(header, place - 4, static_cast<std::uint32_t>(size));
  }
}

}  // namespace station
