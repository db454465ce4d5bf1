#pragma once

#include <gst/gst.h>

namespace simulated_board {

// Caches the mappings of dma-bufs that pass `pad`, as a driver keeps dma-bufs attached: a camera
// reuses its buffers, and a new mapping costs a page fault per page.
// After the pad, the memory of a frame is read-only, and synchronised for reading until it is
// freed. Buffers that are not dma-bufs, cannot be mapped or are shorter than their memory claims
// pass unchanged.
void cacheDmaBufMaps(GstPad* pad);

}  // namespace simulated_board
