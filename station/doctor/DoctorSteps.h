#pragma once

#include <string>

namespace station {

// Steps of "doctor" that load plugins or touch drivers: names of steps and what their argument is.
constexpr const char* kStepOpen = "open";      // an element: can it go to READY?
constexpr const char* kStepCheck = "check";    // a description: what is wrong with it?
constexpr const char* kStepEncode = "encode";  // a description that ends in the appsink "sink"
constexpr const char* kStepLoad = "load";      // a plugin's file: why does it not load?
constexpr const char* kStepDevice = "device";  // a device node

// Runs one step in this process, which is a child of "doctor", and prints its result for the
// parent. Throws StationError (Usage) for a step that does not exist.
void doctorStep(const std::string& step, const std::string& argument);

}  // namespace station
