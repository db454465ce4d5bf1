#pragma once

#include <gst/gst.h>

namespace simulated_board {

// Debug category "simulatedboard" of every element; registerElements() initialises it. Where this
// header is included, GST_ELEMENT_ERROR() and GST_ELEMENT_WARNING() log to it as well.
GST_DEBUG_CATEGORY_EXTERN(simulatedBoardDebug);

}  // namespace simulated_board

#define GST_CAT_DEFAULT ::simulated_board::simulatedBoardDebug
