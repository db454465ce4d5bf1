#pragma once

#include <glib-object.h>

namespace simulated_board {

// The element type of `rtpav1pay`: sends AV1 temporal units in RTP packets of at most "mtu" bytes,
// by the RTP payload format for AV1 1.0. It drops temporal delimiters, tile lists and, with an
// element warning, malformed temporal units. RTP header extensions add to the mtu. It stands in
// for the element of gst-plugins-rs, which Debian 12 does not ship.
GType av1PayloaderType();

}  // namespace simulated_board
