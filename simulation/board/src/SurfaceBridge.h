#pragma once

#include <gst/gst.h>

namespace simulated_board {

// A new element between board memory and system memory, whichever way its neighbours need: it
// gives the pixels of a surface without copying them, copies pixels into a surface of its own, or
// passes buffers on. Floating reference.
GstElement* makeSurfaceBridge();

}  // namespace simulated_board
