#include <lumora/FrameExport.h>

#include <cerrno>
#include <cstring>

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

struct ExportedFrame::Surface : simulated_board::Surface {};

std::shared_ptr<ExportedFrame> ExportedFrame::fromPicture(const LumoraPicture& picture) {
  std::shared_ptr<ExportedFrame> frame(new ExportedFrame(picture));
  return frame->allocateAndCopy(picture) ? frame : nullptr;
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
}

ExportedFrame::~ExportedFrame() {
  if (handle_.fd >= 0) {
    close(handle_.fd);
  }
}

bool ExportedFrame::allocateAndCopy(const LumoraPicture& picture) {
  handle_.fd = memfd_create("lumora-frame", MFD_CLOEXEC);
  if (handle_.fd < 0 || ftruncate(handle_.fd, static_cast<off_t>(handle_.size)) != 0) {
    return false;
  }
  void* const memory =
      mmap(nullptr, handle_.size, PROT_READ | PROT_WRITE, MAP_SHARED, handle_.fd, 0);
  if (memory == MAP_FAILED) {
    return false;
  }
  auto* const pixels = static_cast<std::uint8_t*>(memory);
  copyPlane(picture.luma(), picture.stride(), pixels, handle_.planes[0]);
  copyPlane(picture.chroma(), picture.stride(), pixels, handle_.planes[1]);
  munmap(memory, handle_.size);

  surface_->magic = simulated_board::Surface::kMagic;
  surface_->fd = handle_.fd;
  surface_->size = handle_.size;
  surface_->width = handle_.width;
  surface_->height = handle_.height;
  for (int i = 0; i < 2; ++i) {
    const FramePlaneLayout& plane = handle_.planes[i];
    surface_->planes[i] = {plane.offset, plane.stride, plane.rows};
  }
  handle_.surface = surface_.get();
  handle_.valid = true;
  return true;
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
