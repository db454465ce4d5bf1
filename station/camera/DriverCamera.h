#pragma once

#include <cstdint>
#include <memory>
#include <string>
#include <vector>

#include "SourcePipeline.h"
#include "camera/Camera.h"

namespace station {

// A V4L2 camera whose pictures stay in the driver's own dma-bufs, which nobody maps. A buffer goes
// back to the driver with the last reference to its picture and frame.
//
// While the driver has too few buffers left to go on, GStreamer copies, and so does this camera.
class DriverCamera : public Camera {
 public:
  // Null with the reason if the driver does not give NV12 of that size in one dma-buf a frame.
  static std::unique_ptr<DriverCamera> open(const CameraOptions& options, std::string& reason);

  std::shared_ptr<lumora::LumoraPicture> next() override;
  bool isLive() const override { return true; }
  void suspend() override;

 private:
  explicit DriverCamera(const CameraOptions& options);
  bool start(std::string& reason);
  std::shared_ptr<GstSample> pull(std::string& error);
  std::shared_ptr<lumora::LumoraPicture> copyOf(GstSample* sample);

  media_backend::SourcePipeline pipeline_;
  std::shared_ptr<GstSample> first_;  // that open() has examined; null once it is given
  std::vector<std::uint8_t> scratch_;
  bool hasCopied_ = false;
};

}  // namespace station
