#pragma once

#include <string>

#include <media_backend/GstVideoBackend.h>

namespace station {

struct InspectOptions {
  media_backend::GstVideoBackend::EncoderConfig encoder;
  unsigned int segmentSeconds = 60;
  bool klv = false;
  unsigned int mtu = 1400;  // bytes, of RTP packets
  bool json = false;
  std::string graph;  // SVG file for a drawing of the recorder's pipeline; empty for none
};

// The command "inspect": prints the profile, the usable codecs, the descriptions that the library
// writes for this encoder configuration, and the elements that were looked for. Throws
// StationError (NoPlatform, after printing) if there is no platform.
void inspect(const media_backend::GstVideoBackend& backend, const InspectOptions& options);

}  // namespace station
