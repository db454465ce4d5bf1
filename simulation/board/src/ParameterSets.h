#pragma once

#include <gst/gst.h>

namespace simulated_board {

// Removes parameter sets (SPS and PPS, with H.265 also VPS) from access units that leave `pad` if
// they repeat those sent before; new and changed sets stay. The stream is H.264 or H.265 in
// byte-stream format.
void dropRepeatedParameterSets(GstPad* pad, bool h265);

}  // namespace simulated_board
