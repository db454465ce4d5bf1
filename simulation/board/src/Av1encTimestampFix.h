#pragma once

#include <gst/gst.h>

namespace simulated_board {

// Makes `encoder`, which gives one frame out for each one in, round timestamps to its time base of
// one frame, where it would cut them: 33333333 ns at 30 frames per second would be frame 0 again,
// and its rate control takes frames for twice as long as they are. Outside nothing changes.
void fixAv1encTimestamps(GstElement* encoder);

}  // namespace simulated_board
