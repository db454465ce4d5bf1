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

// A picture in memory of its own, in the layout of camera hardware: NV12 behind a file descriptor,
// rows padded to a stride of 256 bytes, chroma after the luma rows.
//
// Ownership: owns the descriptor and the surface block; handles made from it are valid while it
// exists. Not copyable.
// Threads: immutable after construction; any thread may read it and release the last reference.
class LUMORA_API ExportedFrame {
 public:
  // Null with `errno` set if the allocation fails.
  static std::shared_ptr<ExportedFrame> fromPicture(const LumoraPicture& picture);

  ~ExportedFrame();
  ExportedFrame(const ExportedFrame&) = delete;
  ExportedFrame& operator=(const ExportedFrame&) = delete;

  const FrameExportHandle& handle() const { return handle_; }

 private:
  friend class FramePool;
  struct Memory;
  struct Surface;
  struct Shelf;

  static std::shared_ptr<ExportedFrame> make(const LumoraPicture& picture,
                                             const std::shared_ptr<Shelf>& shelf);
  explicit ExportedFrame(const LumoraPicture& picture);

  FrameExportHandle handle_;
  std::unique_ptr<Memory> memory_;
  std::unique_ptr<Surface> surface_;
  std::weak_ptr<Shelf> shelf_;  // takes the memory on destruction
};

// Pool of a camera's frame memory: the memory of a destroyed frame is reused for a later picture.
// Frames may outlive the pool. Fresh memory costs a page fault per page, which takes longer than
// copying the picture.
//
// Threads: any.
class LUMORA_API FramePool {
 public:
  FramePool();
  ~FramePool();
  FramePool(const FramePool&) = delete;
  FramePool& operator=(const FramePool&) = delete;

  // As ExportedFrame::fromPicture(). Never blocks: allocates if all memory is in use.
  std::shared_ptr<ExportedFrame> exportPicture(const LumoraPicture& picture);

 private:
  std::shared_ptr<ExportedFrame::Shelf> shelf_;
};

}  // namespace lumora
