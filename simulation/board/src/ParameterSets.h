#pragma once

#include <gst/gst.h>

namespace simulated_board {

// Keeps parameter sets (SPS and PPS, with H.265 also VPS) off every access unit that `pad` sends
// where they repeat what was sent before; sets that are new or changed stay. The stream is H.264
// or H.265 in byte-stream format.
void dropRepeatedParameterSets(GstPad* pad, bool h265);

}  // namespace simulated_board
