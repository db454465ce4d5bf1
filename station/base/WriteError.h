#pragma once

#include <string>

#include "base/StationError.h"

namespace station {

// Whether a message ends with the system's text for a disk without space, inodes or quota:
// GStreamer and GLib keep the text of an error alone.
bool isDiskFull(const std::string& message);

// `what` could not be done: DiskFull or Output, by `reason`.
StationError writeError(const std::string& what, const std::string& reason);

}  // namespace station
