#include <lumora/FramePool.h>

#include <cerrno>
#include <cstring>
#include <mutex>
#include <utility>

#include <lumora/FrameMemory.h>
#include <lumora/LumoraPicture.h>

namespace lumora {
namespace {

constexpr std::size_t kMostKept = 16;  // frames

std::uint32_t padded(std::uint32_t value, std::uint32_t alignment) {
  return (value + alignment - 1) / alignment * alignment;
}

// Of an NV12 frame in one buffer, without the buffer.
FrameExportHandle describe(std::uint32_t width, std::uint32_t height,
                           const FramePool::Layout& layout) {
  const std::uint32_t stride = padded(width, layout.stride);
  const std::uint64_t lumaBytes = std::uint64_t{stride} * padded(height, layout.rows);
  FrameExportHandle handle;
  handle.size = lumaBytes + lumaBytes / 2;
  handle.width = width;
  handle.height = height;
  handle.isDmaBuf = true;
  handle.planeCount = 2;
  handle.planes[0] = {0, stride, width, height};
  handle.planes[1] = {lumaBytes, stride, width, height / 2};
  return handle;
}

// Copies the rows of one plane into a buffer.
void copyPlane(const std::uint8_t* source, std::size_t sourceStride, std::uint8_t* buffer,
               const FramePlaneLayout& layout) {
  for (std::size_t row = 0; row < layout.rows; ++row) {
    std::memcpy(buffer + layout.offset + row * layout.stride, source + row * sourceStride,
                layout.rowBytes);
  }
}

}  // namespace

// Unused memory, all for frames of one size.
struct FramePool::Shelf {
  Shelf(std::vector<std::string> places, const Layout& layout, OnFallback onFallback)
      : places_(std::move(places)), layout_(layout), onFallback_(std::move(onFallback)) {}

  // Null with `errno` set if there is none.
  std::unique_ptr<FrameMemory> take(std::uint64_t size) {
    const std::lock_guard<std::mutex> lock(mutex_);
    if (size != frameSize_) {
      frameSize_ = size;
      memories_.clear();
    }
    if (memories_.empty()) {
      return allocate(size);
    }
    std::unique_ptr<FrameMemory> memory = std::move(memories_.back());
    memories_.pop_back();
    return memory;
  }

  void put(std::unique_ptr<FrameMemory> memory, std::uint64_t size) {
    const std::lock_guard<std::mutex> lock(mutex_);
    if (memories_.size() < kMostKept && size == frameSize_) {
      memories_.push_back(std::move(memory));
    }
  }

  const Layout& layout() const { return layout_; }
  std::string place() const {
    const std::lock_guard<std::mutex> lock(mutex_);
    return places_[place_];
  }

 private:
  std::unique_ptr<FrameMemory> allocate(std::uint64_t size) {
    std::unique_ptr<FrameMemory> memory = FrameMemory::allocate(places_[place_], size);
    while (memory == nullptr && place_ + 1 < places_.size()) {
      const std::string reason = std::strerror(errno);
      ++place_;
      if (onFallback_) {
        onFallback_(places_[place_ - 1], reason, places_[place_]);
      }
      memory = FrameMemory::allocate(places_[place_], size);
    }
    return memory;
  }

  const std::vector<std::string> places_;
  const Layout layout_;
  const OnFallback onFallback_;
  mutable std::mutex mutex_;
  std::size_t place_ = 0;
  std::uint64_t frameSize_ = 0;  // bytes that a frame needs
  std::vector<std::unique_ptr<FrameMemory>> memories_;
};

FramePool::FramePool() : FramePool(frameMemoryPlaces(FrameMemoryKind::Memfd), Layout(), nullptr) {}

FramePool::FramePool(std::vector<std::string> places, const Layout& layout, OnFallback onFallback)
    : shelf_(std::make_shared<Shelf>(std::move(places), layout, std::move(onFallback))) {}

FramePool::~FramePool() = default;

std::shared_ptr<ExportedFrame> FramePool::exportPicture(const LumoraPicture& picture) {
  if (picture.exportedFrame() != nullptr) {
    return picture.exportedFrame();
  }
  FrameExportHandle handle = describe(picture.width(), picture.height(), shelf_->layout());
  std::unique_ptr<FrameMemory> taken = shelf_->take(handle.size);
  if (taken == nullptr) {
    return nullptr;
  }
  const auto giveBack = [shelf = std::weak_ptr<Shelf>(shelf_),
                         size = handle.size](FrameMemory* memory) {
    std::unique_ptr<FrameMemory> owned(memory);
    if (const std::shared_ptr<Shelf> kept = shelf.lock()) {
      kept->put(std::move(owned), size);
    }
  };
  const std::shared_ptr<FrameMemory> memory(taken.release(), giveBack);
  {
    const FrameMemory::Writing writing(*memory);
    copyPlane(picture.luma(), picture.stride(), writing.pixels(), handle.planes[0]);
    copyPlane(picture.chroma(), picture.stride(), writing.pixels(), handle.planes[1]);
  }
  handle.valid = true;
  handle.fd = memory->fd();
  return std::make_shared<ExportedFrame>(handle, memory, memory->pixels());
}

std::string FramePool::reserve(std::uint32_t width, std::uint32_t height) {
  const std::uint64_t size = describe(width, height, shelf_->layout()).size;
  std::unique_ptr<FrameMemory> memory = shelf_->take(size);
  if (memory == nullptr) {
    return "";
  }
  shelf_->put(std::move(memory), size);
  return shelf_->place();
}

}  // namespace lumora
