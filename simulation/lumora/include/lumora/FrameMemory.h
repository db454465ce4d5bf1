#pragma once

#include <cstdint>
#include <memory>
#include <string>
#include <vector>

#include <lumora/Export.h>

namespace lumora {

enum class FrameMemoryKind {
  Heap,     // dma-bufs of a DMA heap
  Udmabuf,  // dma-bufs of memory files, by /dev/udmabuf
  Memfd,    // memory files, which only software takes
};

// The kind's places on this machine, best first: a DMA heap's path, "/dev/udmabuf" or "memfd".
// Contiguous heaps come before the system's, since most video hardware needs contiguous memory.
LUMORA_API std::vector<std::string> frameMemoryPlaces(FrameMemoryKind kind);

// Memory for one frame, mapped.
//
// Threads: one at a time.
class LUMORA_API FrameMemory {
 public:
  // `place` is one of frameMemoryPlaces(). Null with `errno` set if the place has no memory.
  static std::unique_ptr<FrameMemory> allocate(const std::string& place, std::uint64_t size);

  ~FrameMemory();
  FrameMemory(const FrameMemory&) = delete;
  FrameMemory& operator=(const FrameMemory&) = delete;

  std::uint64_t size() const { return size_; }  // bytes
  int fd() const { return fd_; }
  const std::uint8_t* pixels() const { return pixels_; }

  // The processor's access for writing, while it exists: caches are synchronised around it.
  class LUMORA_API Writing {
   public:
    explicit Writing(FrameMemory& memory);
    ~Writing();
    Writing(const Writing&) = delete;
    Writing& operator=(const Writing&) = delete;

    std::uint8_t* pixels() const { return memory_.pixels_; }

   private:
    const FrameMemory& memory_;
  };

 private:
  FrameMemory(std::uint64_t size, int fd, bool isDmaBuf);

  const std::uint64_t size_;
  const int fd_;
  const bool isDmaBuf_;
  std::uint8_t* pixels_ = nullptr;  // null only before allocate() has returned
};

}  // namespace lumora
