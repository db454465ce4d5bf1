#pragma once

#include <string>

#include <gst/gst.h>

namespace simulated_board {

// Registers simulated hardware elements with GStreamer, which is initialised by then. `plugin` is
// the plugin that they belong to, null for the calling program. `selection` names them, separated
// by commas: "nvidia" or "imx" for all of that board, or single elements. `rtpav1pay`, which is no
// hardware but which older GStreamer lacks, is left out where something else provides it.
//
// Errors: false with a text in `error`, and nothing registered, if a name is not known or
// something else already provides an element of that name. Any thread, one at a time.
bool registerElements(GstPlugin* plugin, const std::string& selection, std::string& error);

}  // namespace simulated_board
