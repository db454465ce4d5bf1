#pragma once

#include <chrono>

#include <lumora/LumoraPicture.h>

namespace station {

// Metadata for a camera without sensors: an aircraft circles a point on the ground at constant
// height and its gimbal keeps that point in the middle of the picture.
//
// Sets the picture's timestamps, platform angles, sensor position, gimbal angles, fields of
// view, slant range and frame centre. `utc` is the wall-clock time of the picture, `elapsed` the
// time since the first one.
void writeSensorMetadata(lumora::LumoraPicture& picture, std::chrono::system_clock::time_point utc,
                         std::chrono::nanoseconds elapsed);

}  // namespace station
