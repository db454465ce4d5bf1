#pragma once

#include <gst/gst.h>

namespace simulated_board {

// Keeps the dma-bufs that come through `pad` mapped, as a driver keeps them attached: a camera's
// frames come again and again, and to map one anew takes page faults all over it.
// Behind the pad a frame is read-only memory. What is no file in memory, cannot be mapped or is
// shorter than it says goes on as it came.
void cacheDmaBufMaps(GstPad* pad);

}  // namespace simulated_board
