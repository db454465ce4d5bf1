#pragma once

#include <stdexcept>

#include <lumora/FrameExport.h>
#include <sys/mman.h>
#include <unistd.h>

#include <simulated_board/Surface.h>

// A small camera frame, 32 x 16 pixels without padding: 768 bytes of NV12 behind a descriptor, and
// the surface block that stands for it.
class TestFrame {
 public:
  TestFrame() {
    handle_.fd = memfd_create("test-frame", MFD_CLOEXEC);
    if (handle_.fd < 0 || ftruncate(handle_.fd, 768) != 0) {
      throw std::runtime_error("no memory for a frame");
    }
    handle_.valid = true;
    handle_.size = 768;
    handle_.width = 32;
    handle_.height = 16;
    handle_.isDmaBuf = true;
    handle_.planeCount = 2;
    handle_.planes[0] = {0, 32, 32, 16};
    handle_.planes[1] = {512, 32, 32, 8};
    surface_ = {simulated_board::Surface::kMagic, handle_.fd, 768, 32, 16,
                {{0, 32, 16}, {512, 32, 8}}};
    handle_.surface = &surface_;
  }
  ~TestFrame() { close(handle_.fd); }
  TestFrame(const TestFrame&) = delete;
  TestFrame& operator=(const TestFrame&) = delete;

  // Valid while the frame lives; a copy may be changed at will.
  const lumora::FrameExportHandle& handle() const { return handle_; }

 private:
  lumora::FrameExportHandle handle_;
  simulated_board::Surface surface_;
};
