#pragma once

#include <gst/gst.h>

namespace simulated_board {

// Workaround for videoconvert, still needed with GStreamer 1.28.8. Between two YUV formats
// of one matrix it does not convert the range, and other matrices are off by up to 4 of 255.
// `element` holds `first`, a capsfilter "between" and another videoconvert; where the colorimetry
// changes, the filter takes 16 bits of RGB.
void convertColoursExactly(GstElement* element, GstElement* first);

}  // namespace simulated_board
