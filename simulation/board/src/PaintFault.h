#pragma once

#include <gst/gst.h>

namespace simulated_board {

// Replaces the pixels of NV12 and I420 frames that pass `pad`: by black, or by green, which is what
// memory of zeros shows.
void paintOver(GstPad* pad, bool black);

}  // namespace simulated_board
