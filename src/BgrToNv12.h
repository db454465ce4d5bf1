#pragma once

#include <array>
#include <cstddef>
#include <cstdint>

namespace media_backend {

// Converts 8-bit BGR to full-range BT.601 NV12. Values of a pixel are truncated; chroma of a block
// of 2 x 2 pixels is the mean of the four, rounded down. Luma equals fma(0.114, b, fma(0.299, r,
// 0.587 * g)) in double precision.
//
// `width`, `height`: pixels, even and at least 2; `step`: bytes between rows of `bgr`. `nv12`
// receives packed rows, width * height * 3 / 2 bytes. Never reads past the last pixel of a row.
// Threads: any.
using BgrToNv12 = void (*)(const std::uint8_t* bgr, std::size_t step, unsigned width,
                           unsigned height, std::uint8_t* nv12);

// Conversions that this processor supports, fastest first; the second is null if there is only one.
using BgrToNv12Conversions = std::array<BgrToNv12, 2>;
BgrToNv12Conversions bgrToNv12Conversions();

}  // namespace media_backend
