#pragma once

#include <string>
#include <vector>

#include <media_backend/GstVideoBackend.h>

namespace station {

// An element that the library looks for, or that its descriptions take for granted, and whether
// this machine has it.
struct BoardElement {
  const char* platform;  // name of the profile that it counts for, or "every platform"
  const char* role;
  const char* name;
  bool present;
};

// The backend of the board, or of the simulated board `simulated` ("nvidia", "imx", or element
// names with commas; empty for the real one). Call it once, after gst_init() and before anything
// else uses the backend. Throws StationError (Usage) for a board that cannot be simulated here.
const media_backend::GstVideoBackend& openBoard(const std::string& simulated);

// Every element that a platform may need, platform by platform, then those that all need.
std::vector<BoardElement> lookUpElements();

// The backend if it offers a platform; else throws StationError (NoPlatform).
const media_backend::GstVideoBackend& requirePlatform(
    const media_backend::GstVideoBackend& backend);

}  // namespace station
