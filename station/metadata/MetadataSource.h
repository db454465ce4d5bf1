#pragma once

#include <chrono>

#include <lumora/LumoraPicture.h>

namespace station {

// Where the metadata of pictures comes from: position, attitude, gimbal.
//
// Threads: one thread at a time calls annotate().
class MetadataSource {
 public:
  using Time = std::chrono::system_clock::time_point;

  MetadataSource() = default;
  virtual ~MetadataSource() = default;
  MetadataSource(const MetadataSource&) = delete;
  MetadataSource& operator=(const MetadataSource&) = delete;

  // Writes what is known of the picture into its header, when it has just been captured. Does not
  // wait. `time`: that of capture, which continues when the system's clock is set.
  virtual void annotate(lumora::LumoraPicture& picture, Time time) = 0;
};

// Writes the picture's own times into its header: that of capture, and that since the first
// picture.
void writeTimes(lumora::LumoraPicture& picture, MetadataSource::Time time,
                std::chrono::nanoseconds elapsed);

}  // namespace station
