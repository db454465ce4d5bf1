// Exported frames as buffers: what is refused, what the buffer holds, and for how long it keeps the
// host's frame.

#include <cstring>
#include <thread>
#include <vector>

#include <gst/allocators/gstdmabuf.h>
#include <gst/video/video.h>
#include <gtest/gtest.h>
#include <media_backend/GstVideoBackend.h>
#include <sys/stat.h>

#include "support/ProcessState.h"
#include "support/Profiles.h"
#include "support/TestFrame.h"

namespace {

using lumora::FrameExportHandle;
using media_backend::GstVideoBackend;

const GstVideoBackend& imx() {
  static const GstVideoBackend backend(imxProfile());
  return backend;
}

const GstVideoBackend& nvidia() {
  static const GstVideoBackend backend(nvidiaProfile());
  return backend;
}

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
    {"no size", 32, 16, 0, {0, 32, 32, 16}, {512, 32, 32, 8}, false},
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
    {"stride below the row", 32, 16, 768, {0, 31, 32, 16}, {512, 32, 32, 8}, false},
    {"chroma past the end", 32, 16, 767, {0, 32, 32, 16}, {512, 32, 32, 8}, false},
    {"padded chroma past the end", 32, 16, 1471, {0, 64, 32, 16}, {992, 64, 32, 8}, false},
    {"luma past the end", 32, 16, 768, {257, 32, 32, 16}, {0, 32, 32, 8}, false},
    {"chroma before luma", 32, 16, 768, {256, 32, 32, 16}, {0, 32, 32, 8}, false},
    {"chroma one byte into luma", 32, 16, 768, {0, 32, 32, 16}, {511, 32, 32, 8}, false},
    {"one byte into padded luma", 32, 16, 1472, {0, 64, 32, 16}, {991, 64, 32, 8}, false},
    {"offset that wraps around", 32, 16, 768, {0, 32, 32, 16}, {~0ULL, 32, 32, 8}, false},
};

void expectNv12(GstBuffer* buffer, const FrameExportHandle& handle) {
  ASSERT_EQ(gst_buffer_n_memory(buffer), 1U);
  gsize offset = 1;
  gsize maxSize = 0;
  EXPECT_EQ(gst_buffer_get_sizes(buffer, &offset, &maxSize), handle.size);
  EXPECT_EQ(offset, 0U);
  EXPECT_EQ(maxSize, handle.size);
  const GstVideoMeta* const meta = gst_buffer_get_video_meta(buffer);
  ASSERT_NE(meta, nullptr);
  EXPECT_EQ(meta->flags, GST_VIDEO_FRAME_FLAG_NONE);
  EXPECT_EQ(meta->format, GST_VIDEO_FORMAT_NV12);
  EXPECT_EQ(meta->width, handle.width);
  EXPECT_EQ(meta->height, handle.height);
  ASSERT_EQ(meta->n_planes, 2U);
  for (int plane = 0; plane < GST_VIDEO_MAX_PLANES; ++plane) {
    EXPECT_EQ(meta->offset[plane], handle.planes[plane].offset) << plane;
    EXPECT_EQ(meta->stride[plane], static_cast<gint>(handle.planes[plane].stride)) << plane;
  }
}

TEST(DmaBufFrames, BecomeOneMemoryWithVideoMetaIfTheirLayoutHolds) {
  const TestFrame frame;
  const auto keepAlive = std::make_shared<int>();
  const std::ptrdiff_t descriptors = openDescriptors();
  for (const LayoutRow& row : kLayouts) {
    SCOPED_TRACE(row.name);
    FrameExportHandle handle = frame.handle();
    handle.width = row.width;
    handle.height = row.height;
    handle.size = row.size;
    handle.planes[0] = row.luma;
    handle.planes[1] = row.chroma;
    {
      g_autoptr(GstBuffer) buffer = imx().wrapFrame(handle, keepAlive);
      EXPECT_EQ(buffer != nullptr, row.accepted);
      EXPECT_EQ(keepAlive.use_count(), row.accepted ? 2 : 1);
      if (buffer != nullptr) {
        expectNv12(buffer, handle);
      }
    }
    EXPECT_EQ(keepAlive.use_count(), 1);
    EXPECT_EQ(openDescriptors(), descriptors);
  }
}

struct HandleRow {
  const char* name;
  void (*change)(FrameExportHandle&);
};

TEST(DmaBufFrames, AreRefusedForWhatTheyAre) {
  const TestFrame frame;
  const HandleRow rows[] = {
      {"not valid", [](FrameExportHandle& h) { h.valid = false; }},
      {"no descriptor", [](FrameExportHandle& h) { h.fd = -1; }},
      {"closed descriptor", [](FrameExportHandle& h) { h.fd = 1 << 20; }},
      {"no dma-buf", [](FrameExportHandle& h) { h.isDmaBuf = false; }},
      {"one plane", [](FrameExportHandle& h) { h.planeCount = 1; }},
      {"three planes", [](FrameExportHandle& h) { h.planeCount = 3; }},
  };
  for (const HandleRow& row : rows) {
    FrameExportHandle handle = frame.handle();
    row.change(handle);
    EXPECT_EQ(imx().wrapFrame(handle, nullptr), nullptr) << row.name;
  }
}

// Whoever writes through the host's descriptor changes what GStreamer reads.
TEST(DmaBufFrames, ShareTheHostsPixels) {
  const TestFrame frame;
  g_autoptr(GstBuffer) buffer = imx().wrapFrame(frame.handle(), nullptr);
  ASSERT_NE(buffer, nullptr);
  GstMemory* const memory = gst_buffer_peek_memory(buffer, 0);
  ASSERT_TRUE(gst_is_dmabuf_memory(memory));
  const int fd = gst_dmabuf_memory_get_fd(memory);
  EXPECT_NE(fd, frame.handle().fd);
  struct stat theirs = {};
  struct stat ours = {};
  ASSERT_EQ(fstat(fd, &theirs), 0);
  ASSERT_EQ(fstat(frame.handle().fd, &ours), 0);
  EXPECT_EQ(theirs.st_ino, ours.st_ino);
  EXPECT_EQ(theirs.st_dev, ours.st_dev);

  ASSERT_EQ(pwrite(frame.handle().fd, "late", 4, 764), 4);
  char read[4] = {};
  EXPECT_EQ(gst_buffer_extract(buffer, 764, read, 4), 4U);
  EXPECT_EQ(std::memcmp(read, "late", 4), 0);
}

TEST(StreamingFrames, AreTheHostsOwnBlock) {
  const TestFrame frame;
  g_autoptr(GstBuffer) buffer = nvidia().wrapFrame(frame.handle(), nullptr);
  ASSERT_NE(buffer, nullptr);
  EXPECT_EQ(GST_MINI_OBJECT_REFCOUNT_VALUE(buffer), 1);
  ASSERT_EQ(gst_buffer_n_memory(buffer), 1U);
  EXPECT_EQ(gst_buffer_get_video_meta(buffer), nullptr);
  GstMapInfo map;
  ASSERT_TRUE(gst_buffer_map(buffer, &map, GST_MAP_READ));
  EXPECT_EQ(map.data, frame.handle().surface);
  EXPECT_EQ(map.size, sizeof(simulated_board::Surface));
  EXPECT_EQ(map.maxsize, sizeof(simulated_board::Surface));
  gst_buffer_unmap(buffer, &map);
}

// The host's function alone judges a handle there.
TEST(StreamingFrames, AreRefusedByTheHostAlone) {
  const TestFrame frame;
  const void* const block = frame.handle().surface;
  const struct {
    FrameExportHandle handle;
    bool accepted;
  } rows[] = {
      {{true, -1, 0, 31, 0, false, 0, {}, const_cast<void*>(block)}, true},
      {{false, -1, 0, 32, 16, true, 2, {}, const_cast<void*>(block)}, false},
      {{true, -1, 768, 32, 16, true, 2, {}, nullptr}, false},
  };
  for (const auto& row : rows) {
    const auto keepAlive = std::make_shared<int>();
    g_autoptr(GstBuffer) buffer = nvidia().wrapFrame(row.handle, keepAlive);
    EXPECT_EQ(buffer != nullptr, row.accepted);
    EXPECT_EQ(keepAlive.use_count(), row.accepted ? 2 : 1);
  }
}

TEST(WrappedFrames, NeedAPlatform) {
  const TestFrame frame;
  const auto keepAlive = std::make_shared<int>();
  EXPECT_EQ(GstVideoBackend({}).wrapFrame(frame.handle(), keepAlive), nullptr);
  EXPECT_EQ(keepAlive.use_count(), 1);
}

// Where the one reference hangs decides what may go before the frame does: a memory that outlives
// its buffer keeps the frame on NVIDIA only.
TEST(WrappedFrames, KeepTheHostsFrameJustLongEnough) {
  const struct {
    const GstVideoBackend& backend;
    bool memoryKeepsFrame;
  } rows[] = {{imx(), false}, {nvidia(), true}};
  const GQuark key = g_quark_from_string("kelvarion.media_backend.keep_alive");
  for (const auto& row : rows) {
    SCOPED_TRACE(row.backend.name());
    const TestFrame frame;
    auto keepAlive = std::make_shared<int>();
    const std::weak_ptr<int> watch = keepAlive;
    GstBuffer* buffer = row.backend.wrapFrame(frame.handle(), std::move(keepAlive));
    ASSERT_NE(buffer, nullptr);
    EXPECT_EQ(watch.use_count(), 1);
    EXPECT_EQ(GST_MINI_OBJECT_REFCOUNT_VALUE(buffer), 1);
    EXPECT_EQ(GST_BUFFER_PTS(buffer), GST_CLOCK_TIME_NONE);
    EXPECT_EQ(GST_BUFFER_DTS(buffer), GST_CLOCK_TIME_NONE);
    EXPECT_EQ(GST_BUFFER_DURATION(buffer), GST_CLOCK_TIME_NONE);
    // Appending the memory marks every buffer so.
    EXPECT_EQ(GST_BUFFER_FLAGS(buffer) & ~static_cast<guint>(GST_BUFFER_FLAG_TAG_MEMORY), 0U);
    EXPECT_EQ(gst_mini_object_get_qdata(GST_MINI_OBJECT(buffer), key) != nullptr,
              !row.memoryKeepsFrame);

    GstBuffer* const second = gst_buffer_ref(buffer);
    gst_clear_buffer(&buffer);
    EXPECT_EQ(watch.use_count(), 1);
    GstMemory* const memory = gst_buffer_get_memory(second, 0);
    // The last reference may go on any thread.
    std::thread([second] { gst_buffer_unref(second); }).join();
    EXPECT_EQ(watch.use_count(), row.memoryKeepsFrame ? 1 : 0);
    gst_memory_unref(memory);
    EXPECT_TRUE(watch.expired());
  }
}

TEST(WrappedFrames, LeaveNoDescriptorBehind) {
  const TestFrame frame;
  for (const GstVideoBackend* backend : {&imx(), &nvidia()}) {
    const auto keepAlive = std::make_shared<int>();
    const std::ptrdiff_t before = openDescriptors();
    std::vector<std::thread> threads;
    for (int i = 0; i < 4; ++i) {
      threads.emplace_back([&frame, &keepAlive, backend] {
        for (int n = 0; n < 2500; ++n) {
          g_autoptr(GstBuffer) buffer = backend->wrapFrame(frame.handle(), keepAlive);
          ASSERT_NE(buffer, nullptr);
        }
      });
    }
    for (std::thread& thread : threads) {
      thread.join();
    }
    EXPECT_EQ(keepAlive.use_count(), 1) << backend->name();
    EXPECT_EQ(openDescriptors(), before) << backend->name();
  }
}

}  // namespace
