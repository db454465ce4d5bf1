#pragma once

#include <cmath>
#include <cstdint>
#include <memory>
#include <vector>

#include <lumora/LumoraPicture.h>

// Picture `number` of a moving scene: soft waves that wander, each picture told from its
// neighbours.
inline std::shared_ptr<lumora::LumoraPicture> movingPicture(unsigned width, unsigned height,
                                                            int number) {
  std::vector<std::uint8_t> pixels(std::size_t{width} * height * 3 / 2);
  const auto wave = [](double phase) {
    return static_cast<std::uint8_t>(128 + 90 * std::sin(phase));
  };
  for (unsigned y = 0; y < height * 3 / 2; ++y) {  // chroma follows luma
    for (unsigned x = 0; x < width; ++x) {
      const unsigned shift = y < height ? 0 : x % 2;
      pixels[y * width + x] = wave(x * 0.03 + y * 0.03 + number * 0.15 + shift);
    }
  }
  return lumora::LumoraPicture::fromNv12Host(pixels.data(), width, height, width);
}

// Peak signal-to-noise ratio in dB of packed NV12 against a picture, over both planes.
inline double psnr(const std::uint8_t* nv12, const lumora::LumoraPicture& picture) {
  const std::size_t size = std::size_t{picture.width()} * picture.height() * 3 / 2;
  double squares = 0;
  for (std::size_t i = 0; i < size; ++i) {
    const double difference = nv12[i] - picture.luma()[i];
    squares += difference * difference;
  }
  return 10 * std::log10(255.0 * 255.0 * static_cast<double>(size) / squares);
}
