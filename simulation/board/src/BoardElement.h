#pragma once

#include <gst/gst.h>

#include "Model.h"

namespace simulated_board {

// The element type of a model: a bin with the hardware element's pads and properties. It creates
// the software elements inside when it goes to READY, posting an error if one is missing, recreates
// them before PAUSED if a property has changed, and removes them in NULL.
GType boardElementType(const Model& model);

// What the names of those types begin with.
constexpr const char* kBoardElementType = "SimulatedBoard-";

}  // namespace simulated_board
