#pragma once

#include <cstdint>
#include <functional>
#include <memory>
#include <string>
#include <vector>

#include <lumora/Export.h>
#include <lumora/FrameExport.h>

namespace lumora {

// Pool of a camera's frame memory: the memory of a destroyed frame is reused for a later picture.
// Frames may outlive the pool. Fresh memory costs a page fault per page, which takes longer than
// copying the picture.
//
// Threads: any.
class LUMORA_API FramePool {
 public:
  // Padding of NV12 planes; powers of two. The default suits video hardware.
  struct Layout {
    std::uint32_t stride = 256;  // bytes
    std::uint32_t rows = 16;
  };
  // Called with the place that has no memory, why, and the place that is used from now on.
  using OnFallback = std::function<void(const std::string& place, const std::string& reason,
                                        const std::string& next)>;

  FramePool();  // of memfds
  // `places`: at least one, each by frameMemoryPlaces(). When one has no memory, the next is used.
  FramePool(std::vector<std::string> places, const Layout& layout, OnFallback onFallback);
  ~FramePool();
  FramePool(const FramePool&) = delete;
  FramePool& operator=(const FramePool&) = delete;

  // A picture that is in exported memory already keeps it; others are copied into the pool's. Null
  // with `errno` set if the last place has no memory. Never blocks.
  std::shared_ptr<ExportedFrame> exportPicture(const LumoraPicture& picture);

  // Allocates a first frame's memory for pictures of this size and returns its place; empty with
  // `errno` set if no place has any.
  std::string reserve(std::uint32_t width, std::uint32_t height);

 private:
  struct Shelf;
  std::shared_ptr<Shelf> shelf_;
};

}  // namespace lumora
