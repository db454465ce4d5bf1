#pragma once

#include <string>

#include <gst/gst.h>

#include "base/GstPtr.h"
#include "base/StationError.h"

namespace station {

// Pipelines as the station makes them of the library's descriptions. Any thread.

// Builds `description`; `what` names it in the error. Throws StationError (Pipeline).
PipelinePtr buildPipeline(const std::string& description, const std::string& what);

// The element of that name, at any depth, which has to be there; throws StationError (Pipeline).
GstPtr<GstElement> findElement(GstElement* bin, const char* name);

// What an error message from a pipeline says, as the failure of a command (Pipeline).
StationError pipelineError(GstMessage* message);

}  // namespace station
