#pragma once

#include <string>

#include <gst/gst.h>

namespace simulated_board {

// Registers simulated hardware elements; GStreamer has to be initialised. `plugin` is the plugin
// that they belong to, null for the calling program. `selection` lists them, separated by commas:
// "nvidia" or "imx" for all of that board, or names of elements. `rtpav1pay`, which is not
// hardware, is skipped if another plugin provides it.
//
// Errors: false with a text in `error`, and nothing registered, if a name is unknown or something
// else already provides an element of that name.
// Threads: any, one at a time.
bool registerElements(GstPlugin* plugin, const std::string& selection, std::string& error);

// Whether an element is simulated: it is of the plugin "simulatedboard", or registered for the
// program by registerElements(). False if there is none of that name. Loads no plugin.
// Threads: any.
bool isSimulated(const char* element);

}  // namespace simulated_board
