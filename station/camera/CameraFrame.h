#pragma once

#include <chrono>
#include <cstdint>
#include <memory>
#include <vector>

#include <lumora/FrameExport.h>

namespace station {

// A frame of a live camera, which all outputs share.
struct CameraFrame {
  std::shared_ptr<lumora::ExportedFrame> picture;
  // Position at the camera's frame rate, growing; a device may leave some out.
  std::uint64_t number;
  std::chrono::system_clock::time_point time;
  std::vector<std::uint8_t> klv;  // packet of its metadata; empty without
  bool hasSignal = true;          // false: a still picture, while the camera is lost
};

}  // namespace station
