#pragma once

#include <gst/gst.h>

namespace simulated_board {

// Whether the environment variable SIMULATED_BOARD_ENCODER says "replay".
bool replaysAccessUnits();

// Encodes one group of pictures, then repeats its access units with the timestamps of the frames
// that come, so that a measurement shows the cost of everything but the encoder. A request for a
// key picture begins the group anew. `encoder` has a pad "sink" and a pad "src".
void replayAccessUnits(GstElement* encoder);

}  // namespace simulated_board
