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
  std::uint32_t stride = 0;    // from one row's start to the next one's
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
// live as long as the ExportedFrame that it came from.
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

// Memory that stands for a frame towards a streaming element.
struct StreamingFrameMemory {
  void* data = nullptr;
  std::uint64_t size = 0;  // bytes
};

// Gives the block that a streaming element takes for this frame: the frame's surface descriptor,
// not its pixels. True fills `memory`, which stays valid as long as the frame's owner lives; false
// leaves `memory` alone: the handle is not valid or carries no surface. Any thread.
LUMORA_API bool prepareStreamingFrameMemory(const FrameExportHandle& handle,
                                            StreamingFrameMemory& memory);

// A picture written into memory of its own as a camera's hardware leaves it: NV12 behind a file
// descriptor, rows padded to a stride of 256 bytes, chroma after the luma rows.
//
// Ownership: owns the descriptor and the surface block; handles made from it are valid while it
// lives. Not copyable.
// Threads: immutable after construction; any thread may read and the last owner may drop it on any.
class LUMORA_API ExportedFrame {
 public:
  // Null with `errno` set if the memory cannot be had.
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
  std::weak_ptr<Shelf> shelf_;  // where the memory goes from here
};

// The frame memory of a camera: what a dropped frame leaves is used for a later picture. Frames may
// outlive the pool. Fresh memory costs a page fault a page, which for a picture is more than
// copying it.
//
// Threads: any.
class LUMORA_API FramePool {
 public:
  FramePool();
  ~FramePool();
  FramePool(const FramePool&) = delete;
  FramePool& operator=(const FramePool&) = delete;

  // As ExportedFrame::fromPicture(). Never waits: where all memory is in use, it takes more.
  std::shared_ptr<ExportedFrame> exportPicture(const LumoraPicture& picture);

 private:
  std::shared_ptr<ExportedFrame::Shelf> shelf_;
};

}  // namespace lumora
