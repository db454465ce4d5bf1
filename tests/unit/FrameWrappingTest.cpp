// Exported frames as buffers: what is refused, what the buffer holds, for how long it keeps the
// host's frame, and what is left when memory or descriptors run out.

#include <cstring>
#include <new>
#include <string>
#include <string_view>
#include <thread>

#include <gst/allocators/gstdmabuf.h>
#include <gst/video/video.h>
#include <gtest/gtest.h>
#include <lumora/LumoraPicture.h>
#include <media_backend/GstVideoBackend.h>
#include <simulated_board/Surface.h>
#include <unistd.h>

#include "support/Interpose.h"
#include "support/ProcessState.h"
#include "support/Profiles.h"

namespace {

std::string_view g_failing;  // "new" or "dma-buf": what fails, if anything
std::string g_released;      // in this order, after a dma-buf that fails

}  // namespace

extern "C" int close(int fd) {
  g_released += g_failing == "dma-buf" ? "descriptor " : "";
  return nextDefinition<int(int)>("close")(fd);
}

extern "C" GstMemory* gst_dmabuf_allocator_alloc(GstAllocator* allocator, gint fd, gsize size) {
  static auto* const real =
      nextDefinition<decltype(gst_dmabuf_allocator_alloc)>("gst_dmabuf_allocator_alloc");
  if (g_failing != "dma-buf") {
    return real(allocator, fd, size);
  }
  const auto note = [](gpointer, GObject*) { g_released += "allocator "; };
  g_object_weak_ref(G_OBJECT(allocator), note, nullptr);
  return nullptr;
}

void* operator new(std::size_t size, const std::nothrow_t&) noexcept {
  return g_failing == "new" ? nullptr : ::operator new(size);
}

namespace {

using lumora::FrameExportHandle;
using media_backend::GstVideoBackend;

class FrameWrapping : public testing::Test {
 protected:
  // Whatever a test wrapped is gone by now.
  void TearDown() override {
    EXPECT_EQ(keepAlive_.use_count(), 1);
    EXPECT_EQ(openDescriptors(), descriptors_);
  }

  const GstVideoBackend imx_{imxProfile()};
  const GstVideoBackend nvidia_{nvidiaProfile()};
  const std::shared_ptr<int> keepAlive_ = std::make_shared<int>();
  const std::shared_ptr<lumora::ExportedFrame> frame_ = lumora::ExportedFrame::fromPicture(
      *lumora::LumoraPicture::fromNv12Host(std::string(768, 'x').data(), 32, 16, 32));
  const FrameExportHandle handle_ = frame_->handle();
  const std::ptrdiff_t descriptors_ = openDescriptors();
};

struct LayoutRow {
  const char* name;
  std::uint32_t width;
  std::uint32_t height;
  std::uint64_t size;
  lumora::FramePlaneLayout luma;  // offset, stride, bytes in a row, rows
  lumora::FramePlaneLayout chroma;
  bool accepted;
};

// With rows padded to 64 bytes, luma ends at 15 * 64 + 32 = 992. Pictures of two rows take strides
// of any size.
const LayoutRow kLayouts[] = {
    {"packed", 32, 16, 768, {0, 32, 32, 16}, {512, 32, 32, 8}, true},
    {"padded", 32, 16, 1472, {0, 64, 32, 16}, {992, 64, 32, 8}, true},
    {"rows wider than the picture", 30, 16, 768, {0, 32, 32, 16}, {512, 32, 32, 8}, true},
    {"bytes around the planes", 32, 16, 800, {8, 32, 32, 16}, {528, 32, 32, 8}, true},
    {"largest strides", 32, 2, 1LL << 33, {0, ~0U >> 1, 32, 2}, {1LL << 32, ~0U >> 1, 32, 1}, true},
    {"long luma stride", 32, 2, 1LL << 33, {0, 1U << 31, 32, 2}, {1LL << 32, 32, 32, 1}, false},
    {"long chroma stride", 32, 2, 4096, {0, 32, 32, 2}, {64, 1U << 31, 32, 1}, false},
    {"no width", 0, 16, 768, {0, 32, 32, 16}, {512, 32, 32, 8}, false},
    {"no height", 32, 0, 768, {0, 32, 32, 0}, {512, 32, 32, 0}, false},
    {"odd width", 31, 16, 768, {0, 32, 32, 16}, {512, 32, 32, 8}, false},
    {"odd height", 32, 15, 768, {0, 32, 32, 15}, {512, 32, 32, 7}, false},
    {"luma rows short", 32, 16, 768, {0, 32, 31, 16}, {512, 32, 32, 8}, false},
    {"chroma rows short", 32, 16, 768, {0, 32, 32, 16}, {512, 32, 31, 8}, false},
    {"luma row missing", 32, 16, 768, {0, 32, 32, 15}, {512, 32, 32, 8}, false},
    {"luma row too many", 32, 16, 800, {0, 32, 32, 17}, {544, 32, 32, 8}, false},
    {"chroma row missing", 32, 16, 768, {0, 32, 32, 16}, {512, 32, 32, 7}, false},
    {"chroma row too many", 32, 16, 800, {0, 32, 32, 16}, {512, 32, 32, 9}, false},
    {"chroma past the end", 32, 16, 767, {0, 32, 32, 16}, {512, 32, 32, 8}, false},
    {"luma past the end", 32, 16, 768, {257, 32, 32, 16}, {0, 32, 32, 8}, false},
    {"chroma one byte into luma", 32, 16, 768, {0, 32, 32, 16}, {511, 32, 32, 8}, false},
};

void expectNv12(GstBuffer* buffer, const FrameExportHandle& handle) {
  ASSERT_EQ(gst_buffer_n_memory(buffer), 1U);
  EXPECT_EQ(gst_buffer_get_size(buffer), handle.size);
  const GstVideoMeta* const meta = gst_buffer_get_video_meta(buffer);
  ASSERT_NE(meta, nullptr);
  EXPECT_EQ(meta->format, GST_VIDEO_FORMAT_NV12);
  EXPECT_EQ(meta->width, handle.width);
  EXPECT_EQ(meta->height, handle.height);
  ASSERT_EQ(meta->n_planes, 2U);
  for (int plane = 0; plane < GST_VIDEO_MAX_PLANES; ++plane) {
    EXPECT_EQ(meta->offset[plane], handle.planes[plane].offset) << plane;
    EXPECT_EQ(meta->stride[plane], static_cast<gint>(handle.planes[plane].stride)) << plane;
  }
}

TEST_F(FrameWrapping, DmaBufBecomesOneMemoryWithVideoMetaIfItsLayoutHolds) {
  for (const LayoutRow& row : kLayouts) {
    SCOPED_TRACE(row.name);
    FrameExportHandle handle = handle_;
    handle.width = row.width;
    handle.height = row.height;
    handle.size = row.size;
    handle.planes[0] = row.luma;
    handle.planes[1] = row.chroma;
    g_autoptr(GstBuffer) buffer = imx_.wrapFrame(handle, keepAlive_);
    EXPECT_EQ(buffer != nullptr, row.accepted);
    EXPECT_EQ(keepAlive_.use_count(), row.accepted ? 2 : 1);
    if (buffer != nullptr) {
      expectNv12(buffer, handle);
    }
  }
}

// On NVIDIA the host's function alone judges a handle.
TEST_F(FrameWrapping, LooksAtWhatTheHandleIs) {
  const struct {
    const char* name;
    void (*change)(FrameExportHandle&);
    bool onImx;
    bool onNvidia;
  } rows[] = {
      {"nothing", [](FrameExportHandle&) {}, true, true},
      {"not valid", [](FrameExportHandle& h) { h.valid = false; }, false, false},
      {"no descriptor", [](FrameExportHandle& h) { h.fd = -1; }, false, true},
      {"closed descriptor", [](FrameExportHandle& h) { h.fd = 1 << 20; }, false, true},
      {"no dma-buf", [](FrameExportHandle& h) { h.isDmaBuf = false; }, false, true},
      {"one plane", [](FrameExportHandle& h) { h.planeCount = 1; }, false, true},
      {"three planes", [](FrameExportHandle& h) { h.planeCount = 3; }, false, true},
      {"odd size", [](FrameExportHandle& h) { h.width = 31; }, false, true},
      {"no surface", [](FrameExportHandle& h) { h.surface = nullptr; }, true, false},
  };
  for (const auto& row : rows) {
    SCOPED_TRACE(row.name);
    FrameExportHandle handle = handle_;
    row.change(handle);
    g_autoptr(GstBuffer) imx = imx_.wrapFrame(handle, keepAlive_);
    EXPECT_EQ(imx != nullptr, row.onImx);
    g_autoptr(GstBuffer) nvidia = nvidia_.wrapFrame(handle, keepAlive_);
    EXPECT_EQ(nvidia != nullptr, row.onNvidia);
    EXPECT_EQ(GstVideoBackend({}).wrapFrame(handle, keepAlive_), nullptr);
    EXPECT_EQ(keepAlive_.use_count(), 1 + row.onImx + row.onNvidia);
  }
}

// Whoever writes through the host's descriptor changes what GStreamer reads.
TEST_F(FrameWrapping, DmaBufSharesTheHostsPixels) {
  g_autoptr(GstBuffer) buffer = imx_.wrapFrame(handle_, nullptr);
  ASSERT_NE(buffer, nullptr);
  GstMemory* const memory = gst_buffer_peek_memory(buffer, 0);
  ASSERT_TRUE(gst_is_dmabuf_memory(memory));
  EXPECT_NE(gst_dmabuf_memory_get_fd(memory), handle_.fd);
  ASSERT_EQ(pwrite(handle_.fd, "late", 4, 764), 4);
  GstMapInfo map;
  ASSERT_TRUE(gst_buffer_map(buffer, &map, GST_MAP_READ));
  EXPECT_EQ(std::memcmp(map.data + 764, "late", 4), 0);
  gst_buffer_unmap(buffer, &map);
}

TEST_F(FrameWrapping, StreamingMemoryIsTheHostsOwnBlock) {
  g_autoptr(GstBuffer) buffer = nvidia_.wrapFrame(handle_, nullptr);
  ASSERT_NE(buffer, nullptr);
  EXPECT_EQ(gst_buffer_n_memory(buffer), 1U);
  EXPECT_EQ(gst_buffer_get_video_meta(buffer), nullptr);
  GstMapInfo map;
  ASSERT_TRUE(gst_buffer_map(buffer, &map, GST_MAP_READ));
  EXPECT_EQ(map.data, handle_.surface);
  EXPECT_EQ(map.size, sizeof(simulated_board::Surface));
  gst_buffer_unmap(buffer, &map);
}

// Where the one reference hangs decides what may go before the frame does: a memory that outlives
// its buffer keeps the frame on NVIDIA only.
TEST_F(FrameWrapping, KeepsTheHostsFrameJustLongEnough) {
  for (const GstVideoBackend* const backend : {&imx_, &nvidia_}) {
    SCOPED_TRACE(backend->name());
    const bool memoryKeepsFrame = backend == &nvidia_;
    GstBuffer* buffer = backend->wrapFrame(handle_, keepAlive_);
    ASSERT_NE(buffer, nullptr);
    EXPECT_EQ(keepAlive_.use_count(), 2);
    GstMemory* const memory = gst_buffer_get_memory(buffer, 0);
    // The last reference may go on any thread.
    std::thread([buffer] { gst_buffer_unref(buffer); }).join();
    EXPECT_EQ(keepAlive_.use_count(), memoryKeepsFrame ? 2 : 1);
    gst_memory_unref(memory);
    EXPECT_EQ(keepAlive_.use_count(), 1);
  }
}

// The faults tests deny every descriptor; a dma-buf is denied here only.
TEST_F(FrameWrapping, LeavesNothingBehindWhenItFails) {
  const std::pair<const GstVideoBackend*, const char*> rows[] = {
      {&imx_, "dma-buf"}, {&imx_, "new"}, {&nvidia_, "new"}};
  for (const auto& [backend, failing] : rows) {
    g_failing = failing;
    GstBuffer* const buffer = backend->wrapFrame(handle_, keepAlive_);
    g_failing = {};
    EXPECT_EQ(buffer, nullptr) << backend->name() << " " << failing;
    EXPECT_EQ(keepAlive_.use_count(), 1);
    EXPECT_EQ(openDescriptors(), descriptors_);
  }
  EXPECT_EQ(g_released, "allocator descriptor ");
}

}  // namespace
