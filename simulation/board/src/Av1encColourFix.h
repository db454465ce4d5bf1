#pragma once

#include <gst/gst.h>

namespace simulated_board {

// Workaround for av1enc, no fixed version is known: it does not write the colorimetry of its input
// into the stream.
void writeAv1encColours(GstElement* encoder);

}  // namespace simulated_board
