#pragma once

#include <algorithm>
#include <chrono>
#include <cmath>
#include <cstddef>
#include <cstdint>
#include <memory>
#include <thread>
#include <vector>

#include <media_backend/GstVideoBackend.h>

#include "camera/Camera.h"

// The time of the system's clock as a row of black and white blocks at the top of a picture, one a
// bit, the lowest first: microseconds, of which only these bits are kept.
constexpr unsigned int kTimeBits = 40;

inline std::int64_t pictureTime() {
  return std::chrono::duration_cast<std::chrono::microseconds>(
             std::chrono::system_clock::now().time_since_epoch())
             .count() &
         ((std::int64_t{1} << kTimeBits) - 1);
}

// `width` is a multiple of the bits.
inline void writeTime(std::uint8_t* luma, std::size_t stride, unsigned int width) {
  const std::int64_t time = pictureTime();
  const unsigned int block = width / kTimeBits;
  for (unsigned int row = 0; row < block; ++row) {
    for (unsigned int bit = 0; bit < kTimeBits; ++bit) {
      std::fill_n(luma + row * stride + bit * block, block,
                  static_cast<std::uint8_t>((time >> bit & 1) != 0 ? 235 : 16));
    }
  }
}

// Seconds since the time that the picture carries.
inline double pictureAge(const std::uint8_t* luma, std::size_t stride, unsigned int width) {
  std::int64_t time = 0;
  const unsigned int block = width / kTimeBits;
  const std::uint8_t* const middle = luma + block / 2 * stride + block / 2;
  for (unsigned int bit = 0; bit < kTimeBits; ++bit) {
    time |= std::int64_t{middle[bit * block] > 128 ? 1 : 0} << bit;
  }
  return static_cast<double>(pictureTime() - time) * 1e-6;
}

// A live camera at 30 frames per second, whose pictures carry the time at which they were made.
// They are grey otherwise, or texture that moves.
class StampingCamera : public station::Camera {
 public:
  static constexpr int kFps = 30;

  StampingCamera(const media_backend::GstVideoBackend& backend, unsigned int width,
                 unsigned int height, bool isTextured)
      : Camera({"test picture", width, height, false, kFps}),
        width_(width),
        height_(height),
        pixels_(std::size_t{width} * height * 3 / 2, 128) {
    format_ = {width, height, {kFps, 1}, ""};
    if (isTextured) {
      makeTexture();
    }
    feedInto(backend);
  }

  std::shared_ptr<lumora::LumoraPicture> next() override {
    due_ = std::max(due_ + std::chrono::microseconds(1000000 / kFps),
                    std::chrono::steady_clock::now());
    std::this_thread::sleep_until(due_);
    if (!texture_.empty()) {
      const std::size_t size = texture_.size() / 2;
      const std::size_t row = 4 * number_++ % height_;
      std::copy_n(texture_.begin() + static_cast<std::ptrdiff_t>(row * width_), size,
                  pixels_.begin());
    }
    writeTime(pixels_.data(), width_, width_);
    return lumora::LumoraPicture::fromNv12Host(pixels_.data(), width_, height_, width_);
  }
  bool isLive() const override { return true; }

 private:
  // Two pictures of luma, one below the other: shapes, and the grain of a sensor.
  void makeTexture() {
    std::uint32_t random = 1;
    for (unsigned int y = 0; y < 2 * height_; ++y) {
      for (unsigned int x = 0; x < width_; ++x) {
        random = random * 1664525 + 1013904223;
        const double shape = std::sin(x / 23.0) * std::sin(y % height_ / 17.0);
        const int grain = static_cast<int>(random >> 29) - 4;
        texture_.push_back(static_cast<std::uint8_t>(128 + 70 * shape + grain));
      }
    }
  }

  const unsigned int width_;
  const unsigned int height_;
  std::size_t number_ = 0;
  std::vector<std::uint8_t> pixels_;
  std::vector<std::uint8_t> texture_;
  std::chrono::steady_clock::time_point due_;
};
