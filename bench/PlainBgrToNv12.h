#pragma once

#include <cstddef>
#include <cstdint>

// The conversion as it stands in its description, pixel by pixel, compiled as most programs are
// (-O2); parameters as in BgrToNv12.h.
void plainLoop(const std::uint8_t* bgr, std::size_t step, unsigned width, unsigned height,
               std::uint8_t* nv12);
