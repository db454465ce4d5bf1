#pragma once

#include <optional>
#include <string>
#include <string_view>

#include <gst/gst.h>

namespace station {

// What describes AV1 in MP4 (AV1 Codec ISO Media File Format Binding).
struct Av1Config {
  std::string content;  // of the box av1C
  std::string codecs;   // of a media type, as "av01.0.04M.08"

  // Of the sequence header in a temporal unit of the low-overhead format, and av1parse's caps; none
  // without such a header.
  static std::optional<Av1Config> of(std::string_view temporalUnit, const GstCaps* caps);
};

}  // namespace station
