#pragma once

#include <glib-object.h>

namespace simulated_board {

// The element type of `rtpav1pay`: temporal units of AV1 into RTP packets of at most "mtu" bytes,
// by the RTP payload format for AV1 1.0. It drops temporal delimiters, tile lists and, with an
// element warning, malformed temporal units. RTP header extensions come on top of the mtu.
GType av1PayloaderType();

}  // namespace simulated_board
