#include <lumora/FrameExport.h>

#include <utility>

#include <lumora/FramePool.h>
#include <lumora/LumoraPicture.h>
#include <simulated_board/Surface.h>

namespace lumora {

struct ExportedFrame::Surface : simulated_board::Surface {};

std::shared_ptr<ExportedFrame> ExportedFrame::fromPicture(const LumoraPicture& picture) {
  return FramePool().exportPicture(picture);
}

ExportedFrame::ExportedFrame(const FrameExportHandle& handle, std::shared_ptr<void> owner,
                             const std::uint8_t* pixels)
    : handle_(handle), owner_(std::move(owner)), pixels_(pixels), surface_(new Surface{}) {
  handle_.surface = surface_.get();
  surface_->magic = simulated_board::Surface::kMagic;
  surface_->fd = handle_.fd;
  surface_->size = handle_.size;
  surface_->width = handle_.width;
  surface_->height = handle_.height;
  for (int i = 0; i < 2; ++i) {
    const FramePlaneLayout& plane = handle_.planes[i];
    surface_->planes[i] = {plane.offset, plane.stride, plane.rows};
  }
}

ExportedFrame::~ExportedFrame() = default;

bool prepareStreamingFrameMemory(const FrameExportHandle& handle, StreamingFrameMemory& memory) {
  if (!handle.valid || handle.surface == nullptr) {
    return false;
  }
  memory.data = handle.surface;
  memory.size = sizeof(simulated_board::Surface);
  return true;
}

}  // namespace lumora
