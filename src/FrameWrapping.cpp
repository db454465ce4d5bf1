#include "FrameWrapping.h"

#include <cstddef>
#include <cstdint>
#include <limits>
#include <new>
#include <utility>

#include <gst/allocators/gstdmabuf.h>
#include <gst/video/video.h>
#include <unistd.h>

#include "gst/UniqueFd.h"

namespace media_backend {
namespace {

// Keeps the host's frame alive while a memory wraps its streaming block.
struct StreamingFrameHolder {
  void* data;
  std::shared_ptr<void> keepAlive;
};

void gst_buffer_keep_alive_free(gpointer holder) {
  delete static_cast<std::shared_ptr<void>*>(holder);
}

void streaming_frame_holder_free(gpointer holder) {
  delete static_cast<StreamingFrameHolder*>(holder);
}

GQuark gst_buffer_keep_alive_quark() {
  static const GQuark kQuark = g_quark_from_static_string("kelvarion.media_backend.keep_alive");
  return kQuark;
}

// Whether the handle describes an NV12 frame that lies wholly inside its dma-buf, with strides that
// video meta can express.
bool isNv12DmaBuf(const lumora::FrameExportHandle& handle) {
  if (!handle.valid || handle.fd < 0 || handle.size == 0 || handle.width == 0 ||
      handle.height == 0 || !handle.isDmaBuf || handle.planeCount != 2 || handle.width % 2 != 0 ||
      handle.height % 2 != 0) {
    return false;
  }
  const lumora::FramePlaneLayout& luma = handle.planes[0];
  const lumora::FramePlaneLayout& chroma = handle.planes[1];
  if (luma.rowBytes < handle.width || luma.rows != handle.height ||
      chroma.rowBytes < handle.width || chroma.rows != handle.height / 2) {
    return false;
  }
  std::size_t lumaEnd = 0;
  std::size_t chromaEnd = 0;
  if (!luma.endOffset(handle.size, lumaEnd) || !chroma.endOffset(handle.size, chromaEnd)) {
    return false;
  }
  constexpr std::uint32_t kMaxStride = std::numeric_limits<gint>::max();
  return chroma.offset >= lumaEnd && luma.stride <= kMaxStride && chroma.stride <= kMaxStride;
}

// dma-buf memory over dup(fd); null if dup() or the allocator fails.
GstMemory* duplicateDmaBuf(int fd, gsize size) {
  g_autoptr(GstAllocator) allocator = gst_dmabuf_allocator_new();
  if (allocator == nullptr) {
    return nullptr;
  }
  UniqueFd duplicate(dup(fd));
  if (duplicate.get() < 0) {
    return nullptr;
  }
  GstMemory* const memory = gst_dmabuf_allocator_alloc(allocator, duplicate.get(), size);
  gst_clear_object(&allocator);  // the memory holds its own reference
  if (memory != nullptr) {
    duplicate.release();
  }
  return memory;
}

void addNv12Meta(GstBuffer* buffer, const lumora::FrameExportHandle& handle) {
  gsize offsets[GST_VIDEO_MAX_PLANES] = {handle.planes[0].offset, handle.planes[1].offset};
  gint strides[GST_VIDEO_MAX_PLANES] = {static_cast<gint>(handle.planes[0].stride),
                                        static_cast<gint>(handle.planes[1].stride)};
  gst_buffer_add_video_meta_full(buffer, GST_VIDEO_FRAME_FLAG_NONE, GST_VIDEO_FORMAT_NV12,
                                 handle.width, handle.height, 2, offsets, strides);
}

}  // namespace

GstBuffer* wrapDmaBuf(const lumora::FrameExportHandle& handle, std::shared_ptr<void> keepAlive) {
  if (!isNv12DmaBuf(handle)) {
    return nullptr;
  }
  g_autoptr(GstBuffer) buffer = gst_buffer_new();
  if (buffer == nullptr) {
    return nullptr;
  }
  GstMemory* const memory = duplicateDmaBuf(handle.fd, handle.size);
  if (memory == nullptr) {
    return nullptr;
  }
  gst_buffer_append_memory(buffer, memory);
  addNv12Meta(buffer, handle);

  auto* const holder = new (std::nothrow) std::shared_ptr<void>(std::move(keepAlive));
  if (holder == nullptr) {
    return nullptr;
  }
  gst_mini_object_set_qdata(GST_MINI_OBJECT_CAST(buffer), gst_buffer_keep_alive_quark(), holder,
                            gst_buffer_keep_alive_free);
  return std::exchange(buffer, nullptr);
}

GstBuffer* wrapStreamingMemory(const lumora::FrameExportHandle& handle,
                               std::shared_ptr<void> keepAlive) {
  lumora::StreamingFrameMemory memory{};
  if (!lumora::prepareStreamingFrameMemory(handle, memory)) {
    return nullptr;
  }
  g_autoptr(GstBuffer) buffer = gst_buffer_new();
  if (buffer == nullptr) {
    return nullptr;
  }
  std::unique_ptr<StreamingFrameHolder> holder(
      new (std::nothrow) StreamingFrameHolder{memory.data, std::move(keepAlive)});
  if (holder == nullptr) {
    return nullptr;
  }
  GstMemory* const wrapped =
      gst_memory_new_wrapped(static_cast<GstMemoryFlags>(0), memory.data, memory.size, 0,
                             memory.size, holder.get(), streaming_frame_holder_free);
  if (wrapped == nullptr) {
    return nullptr;
  }
  static_cast<void>(holder.release());
  gst_buffer_append_memory(buffer, wrapped);
  return std::exchange(buffer, nullptr);
}

}  // namespace media_backend
