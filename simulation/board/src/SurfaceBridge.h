#pragma once

#include <gst/gst.h>

namespace simulated_board {

// Returns a new element between board memory and system memory, in the direction that its
// neighbours negotiate: it exposes the pixels of a surface without copying them, copies pixels into
// a new surface, or passes buffers through. Floating reference.
GstElement* makeSurfaceBridge();

}  // namespace simulated_board
