#include <lumora/FrameExport.h>

#include <cerrno>
#include <cstring>
#include <mutex>
#include <utility>
#include <vector>

#include <fcntl.h>
#include <sys/mman.h>
#include <unistd.h>

#include <lumora/LumoraPicture.h>
#include <simulated_board/Surface.h>

namespace lumora {
namespace {

constexpr std::uint32_t kStrideAlignment = 256;  // bytes, as camera hardware pads its rows

// Copies `rows` rows of `width` bytes between two planes.
void copyPlane(const std::uint8_t* source, std::size_t sourceStride, std::uint8_t* target,
               const FramePlaneLayout& layout) {
  for (std::size_t row = 0; row < layout.rows; ++row) {
    std::memcpy(target + layout.offset + row * layout.stride, source + row * sourceStride,
                layout.rowBytes);
  }
}

}  // namespace

// A mapped file descriptor; `pixels` is null if mapping failed.
struct ExportedFrame::Memory {
  explicit Memory(std::uint64_t bytes)
      : size(bytes), fd(memfd_create("lumora-frame", MFD_CLOEXEC)) {
    if (fd >= 0 && ftruncate(fd, static_cast<off_t>(size)) == 0) {
      void* const mapped = mmap(nullptr, size, PROT_READ | PROT_WRITE, MAP_SHARED, fd, 0);
      pixels = mapped == MAP_FAILED ? nullptr : static_cast<std::uint8_t*>(mapped);
    }
  }
  ~Memory() {
    const int before = errno;
    if (pixels != nullptr) {
      munmap(pixels, size);
    }
    if (fd >= 0) {
      close(fd);
    }
    errno = before;
  }
  Memory(const Memory&) = delete;
  Memory& operator=(const Memory&) = delete;

  const std::uint64_t size;
  const int fd;
  std::uint8_t* pixels = nullptr;
};

struct ExportedFrame::Surface : simulated_board::Surface {};

// Unused memory, all of one size.
struct ExportedFrame::Shelf {
  std::unique_ptr<Memory> take(std::uint64_t size) {
    const std::lock_guard<std::mutex> lock(mutex);
    if (!memories.empty() && memories.back()->size != size) {
      memories.clear();
    }
    if (memories.empty()) {
      return nullptr;
    }
    std::unique_ptr<Memory> memory = std::move(memories.back());
    memories.pop_back();
    return memory;
  }

  void put(std::unique_ptr<Memory> memory) {
    const std::lock_guard<std::mutex> lock(mutex);
    if (memories.size() < kMaxKept && (memories.empty() || memories[0]->size == memory->size)) {
      memories.push_back(std::move(memory));
    }
  }

  static constexpr std::size_t kMaxKept = 16;
  std::mutex mutex;
  std::vector<std::unique_ptr<Memory>> memories;
};

std::shared_ptr<ExportedFrame> ExportedFrame::fromPicture(const LumoraPicture& picture) {
  return make(picture, nullptr);
}

std::shared_ptr<ExportedFrame> ExportedFrame::make(const LumoraPicture& picture,
                                                   const std::shared_ptr<Shelf>& shelf) {
  std::shared_ptr<ExportedFrame> frame(new ExportedFrame(picture));
  FrameExportHandle& handle = frame->handle_;
  if (shelf != nullptr) {
    frame->memory_ = shelf->take(handle.size);
    frame->shelf_ = shelf;
  }
  if (frame->memory_ == nullptr) {
    frame->memory_ = std::make_unique<Memory>(handle.size);
  }
  Memory& memory = *frame->memory_;
  if (memory.pixels == nullptr) {
    frame->shelf_.reset();
    return nullptr;
  }
  copyPlane(picture.luma(), picture.stride(), memory.pixels, handle.planes[0]);
  copyPlane(picture.chroma(), picture.stride(), memory.pixels, handle.planes[1]);

  handle.fd = memory.fd;
  handle.valid = true;
  frame->surface_->fd = memory.fd;
  return frame;
}

ExportedFrame::ExportedFrame(const LumoraPicture& picture) : surface_(new Surface{}) {
  const std::uint32_t width = picture.width();
  const std::uint32_t height = picture.height();
  const std::uint32_t stride = (width + kStrideAlignment - 1) / kStrideAlignment * kStrideAlignment;
  const std::uint64_t lumaBytes = std::uint64_t{stride} * height;

  handle_.size = lumaBytes + std::uint64_t{stride} * (height / 2);
  handle_.width = width;
  handle_.height = height;
  handle_.isDmaBuf = true;
  handle_.planeCount = 2;
  handle_.planes[0] = {0, stride, width, height};
  handle_.planes[1] = {lumaBytes, stride, width, height / 2};
  handle_.surface = surface_.get();

  surface_->magic = simulated_board::Surface::kMagic;
  surface_->size = handle_.size;
  surface_->width = width;
  surface_->height = height;
  for (int i = 0; i < 2; ++i) {
    const FramePlaneLayout& plane = handle_.planes[i];
    surface_->planes[i] = {plane.offset, plane.stride, plane.rows};
  }
}

ExportedFrame::~ExportedFrame() {
  if (const std::shared_ptr<Shelf> shelf = shelf_.lock()) {
    shelf->put(std::move(memory_));
  }
}

FramePool::FramePool() : shelf_(std::make_shared<ExportedFrame::Shelf>()) {}

FramePool::~FramePool() = default;

std::shared_ptr<ExportedFrame> FramePool::exportPicture(const LumoraPicture& picture) {
  return ExportedFrame::make(picture, shelf_);
}

bool prepareStreamingFrameMemory(const FrameExportHandle& handle, StreamingFrameMemory& memory) {
  if (!handle.valid || handle.surface == nullptr) {
    return false;
  }
  memory.data = handle.surface;
  memory.size = sizeof(simulated_board::Surface);
  return true;
}

}  // namespace lumora
