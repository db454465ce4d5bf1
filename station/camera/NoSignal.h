#pragma once

#include <chrono>
#include <memory>

#include <lumora/LumoraPicture.h>

namespace station {

// A picture that says "no signal" and since when, in UTC. Width and height are in pixels, even.
std::shared_ptr<lumora::LumoraPicture> noSignalPicture(unsigned int width, unsigned int height,
                                                       std::chrono::system_clock::time_point since);

}  // namespace station
