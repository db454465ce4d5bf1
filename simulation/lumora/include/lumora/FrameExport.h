#pragma once

#include <cstddef>
#include <cstdint>
#include <memory>

#include <lumora/Export.h>

namespace lumora {

class LumoraPicture;

// Where one plane lies inside a frame buffer. Offsets, strides and row lengths are in bytes.
struct FramePlaneLayout {
  std::uint64_t offset = 0;    // first row, from the start of the buffer
  std::uint32_t stride = 0;    // between the starts of two rows
  std::uint32_t rowBytes = 0;  // pixel bytes in a row, at most `stride`
  std::uint32_t rows = 0;

  // Whether the plane lies wholly inside a buffer of `totalSize` bytes. If so, `end` receives the
  // offset one past its last pixel byte; otherwise `end` keeps its value. Never overflows.
  bool endOffset(std::size_t totalSize, std::size_t& end) const {
    if (stride == 0 || rowBytes == 0 || stride < rowBytes || rows == 0 || totalSize < offset) {
      return false;
    }
    const std::uint64_t span = std::uint64_t{rows - 1} * stride;
    if (span > totalSize - offset) {
      return false;
    }
    const std::uint64_t lastRow = offset + span;
    if (rowBytes > totalSize - lastRow) {
      return false;
    }
    end = static_cast<std::size_t>(lastRow + rowBytes);
    return true;
  }
};

// A camera frame as the host exports it. A plain view: it owns neither `fd` nor `surface`, which
// are valid while the ExportedFrame exists that it came from.
struct FrameExportHandle {
  bool valid = false;
  std::int32_t fd = -1;
  std::uint64_t size = 0;    // bytes in the buffer behind `fd`
  std::uint32_t width = 0;   // pixels
  std::uint32_t height = 0;  // pixels
  bool isDmaBuf = false;
  std::uint8_t planeCount = 0;
  FramePlaneLayout planes[4];  // NV12: [0] luma, [1] interleaved chroma
  void* surface = nullptr;     // surface block for streaming elements, see Surface.h of the board
};

// Memory that represents a frame for a streaming element.
struct StreamingFrameMemory {
  void* data = nullptr;
  std::uint64_t size = 0;  // bytes
};

// Stores in `memory` the block that a streaming element takes for this frame: the frame's surface
// descriptor, not its pixels. It is valid while the frame's owner exists. False, with `memory`
// unchanged, if the handle is invalid or has no surface.
// Threads: any.
LUMORA_API bool prepareStreamingFrameMemory(const FrameExportHandle& handle,
                                            StreamingFrameMemory& memory);

// A frame in memory that elements take without copying it.
//
// Ownership: owns the surface block and shares the memory behind the descriptor; handles made from
// it are valid while it exists. Not copyable.
// Threads: immutable after construction; any thread may read it and release the last reference.
class LUMORA_API ExportedFrame {
 public:
  // Copies the picture into a memfd of its own, in the layout of a FramePool. Null with `errno` set
  // if the allocation fails.
  static std::shared_ptr<ExportedFrame> fromPicture(const LumoraPicture& picture);

  // A frame in memory that `owner` keeps alive, such as a buffer of a camera's driver. `handle` is
  // valid and describes NV12; its surface is ignored. `pixels` is where the buffer is mapped, null
  // if it is not.
  ExportedFrame(const FrameExportHandle& handle, std::shared_ptr<void> owner,
                const std::uint8_t* pixels = nullptr);
  ~ExportedFrame();
  ExportedFrame(const ExportedFrame&) = delete;
  ExportedFrame& operator=(const ExportedFrame&) = delete;

  const FrameExportHandle& handle() const { return handle_; }
  // The mapped buffer, `handle().size` bytes; null if it is not mapped.
  const std::uint8_t* pixels() const { return pixels_; }

 private:
  struct Surface;

  FrameExportHandle handle_;
  std::shared_ptr<void> owner_;
  const std::uint8_t* pixels_;
  std::unique_ptr<Surface> surface_;
};

}  // namespace lumora
