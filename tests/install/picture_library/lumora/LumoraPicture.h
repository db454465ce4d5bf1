#pragma once

#include <cstddef>
#include <cstdint>
#include <memory>
#include <string>

namespace lumora {

struct FramePlaneLayout {
  std::uint64_t offset;
  std::uint32_t stride;
  std::uint32_t rowBytes;
  std::uint32_t rows;

  bool endOffset(std::size_t totalSize, std::size_t& end) const {
    if (stride == 0 || rowBytes == 0 || stride < rowBytes || rows == 0 || offset > totalSize) {
      return false;
    }
    const std::uint64_t needed = std::uint64_t{rows - 1} * stride + rowBytes;
    if (needed > totalSize - offset) {
      return false;
    }
    end = static_cast<std::size_t>(offset + needed);
    return true;
  }
};

struct FrameExportHandle {
  bool valid;
  std::int32_t fd;
  std::uint64_t size;
  std::uint32_t width;
  std::uint32_t height;
  bool isDmaBuf;
  std::uint8_t planeCount;
  FramePlaneLayout planes[2];
};

struct StreamingFrameMemory {
  void* data;
  std::uint64_t size;
};

bool prepareStreamingFrameMemory(const FrameExportHandle& handle, StreamingFrameMemory& memory);

class LumoraPicture {
 public:
  struct BaseMetadata {
    // KEYS
  };

  static std::shared_ptr<LumoraPicture> fromNv12Host(const void* data, unsigned width,
                                                     unsigned height, unsigned stride);
};

}  // namespace lumora
