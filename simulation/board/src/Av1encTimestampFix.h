#pragma once

#include <gst/gst.h>

namespace simulated_board {

// Workaround for av1enc of GStreamer 1.22 and later; no fixed version is known. Its time base is
// one frame, and gst_av1_enc_handle_frame() truncates timestamps to it: 33333333 ns at 30 frames
// per second is frame 0 again, and the rate control assumes frames of twice the duration. Shifts
// timestamps by half a frame before the encoder and back after it. `encoder` has to return one
// frame for each input frame.
void fixAv1encTimestamps(GstElement* encoder);

}  // namespace simulated_board
