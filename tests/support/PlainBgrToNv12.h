#pragma once

#include <algorithm>
#include <cmath>
#include <cstddef>
#include <cstdint>

// What BgrToNv12.h makes fast, pixel by pixel in double precision.
inline void plainBgrToNv12(const std::uint8_t* bgr, std::size_t step, unsigned width,
                           unsigned height, std::uint8_t* nv12) {
  const auto toByte = [](double value) { return std::clamp(static_cast<int>(value), 0, 255); };
  std::uint8_t* chroma = nv12 + std::size_t{width} * height;
  for (std::size_t y = 0; y < height; y += 2) {
    for (std::size_t x = 0; x < width; x += 2) {
      int u = 0;
      int v = 0;
      for (std::size_t i = 0; i < 4; ++i) {
        const std::size_t row = y + i / 2;
        const std::size_t column = x + i % 2;
        const std::uint8_t* const pixel = bgr + row * step + 3 * column;
        const double b = pixel[0];
        const double g = pixel[1];
        const double r = pixel[2];
        nv12[row * width + column] =
            static_cast<std::uint8_t>(toByte(std::fma(0.114, b, std::fma(0.299, r, 0.587 * g))));
        u += toByte(std::fma(0.5, b, std::fma(-0.168736, r, -0.331264 * g)) + 128);
        v += toByte(std::fma(-0.081312, b, std::fma(0.5, r, -0.418688 * g)) + 128);
      }
      *chroma++ = static_cast<std::uint8_t>(u >> 2);
      *chroma++ = static_cast<std::uint8_t>(v >> 2);
    }
  }
}
