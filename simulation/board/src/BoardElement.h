#pragma once

#include <gst/gst.h>

#include "Model.h"

namespace simulated_board {

// The element type of a model: a bin with the hardware element's pads and properties. It makes the
// software elements inside when it goes to READY, posting an error where one is missing, makes them
// anew if a property has changed until PAUSED, and drops them in NULL.
GType boardElementType(const Model& model);

}  // namespace simulated_board
