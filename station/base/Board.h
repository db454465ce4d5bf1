#pragma once

#include <string>
#include <vector>

#include <media_backend/GstVideoBackend.h>

namespace station {

// Every codec of the library, in the order in which the station lists them.
constexpr media_backend::GstVideoBackend::Codec kCodecs[] = {
    media_backend::GstVideoBackend::Codec::H264, media_backend::GstVideoBackend::Codec::H265,
    media_backend::GstVideoBackend::Codec::Av1, media_backend::GstVideoBackend::Codec::Mjpeg};

// How much depends on an element.
enum class Need {
  Always,    // recording
  OneOf,     // the platform, which takes one of its converters and one of its encoders
  Optional,  // its codec or use alone
};

// An element that the library looks for, or that its descriptions contain, and whether this machine
// has it.
struct BoardElement {
  media_backend::GstVideoBackend::Platform platform;  // None: every platform
  media_backend::GstVideoBackend::Codec codec;        // Unknown: any
  Need need;
  const char* role;  // for display
  const char* name;
  bool present;
};

// Whether the platform takes either of two elements.
bool areAlternatives(const BoardElement& one, const BoardElement& other);

// For display: the name of the platform's profile, or "every platform".
const char* platformName(media_backend::GstVideoBackend::Platform platform);

media_backend::GstVideoBackend::Platform platformOf(const media_backend::GstVideoBackend& backend);

// The backend of the board, or of the simulated board `simulated` ("nvidia", "imx", or element
// names with commas; empty for the real one). Call it once, after gst_init() and before anything
// else uses the backend. Throws StationError (Usage) for a board that cannot be simulated here.
const media_backend::GstVideoBackend& openBoard(const std::string& simulated);

// The same; throws StationError (NoPlatform) for a board without a platform.
const media_backend::GstVideoBackend& openUsableBoard(const std::string& simulated);

// Every element that a platform may need, platform by platform, then those that all need.
std::vector<BoardElement> lookUpElements();

// How many of the platform's hardware elements that are here are simulated.
enum class Simulation { None, Some, All };
Simulation simulationOf(media_backend::GstVideoBackend::Platform platform);

// Throws StationError (NoPlatform) if the backend offers none.
void requirePlatform(const media_backend::GstVideoBackend& backend);

}  // namespace station
