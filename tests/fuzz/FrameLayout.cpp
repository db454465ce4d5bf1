// Exported frames: wrapFrame() and endOffset() take just those whose planes lie inside the memory,
// and whatever they refuse or take leaves nothing behind.

#include <limits>
#include <memory>

#include <fcntl.h>
#include <fuzzer/FuzzedDataProvider.h>
#include <gst/video/video.h>
#include <media_backend/GstVideoBackend.h>
#include <simulated_board/Surface.h>
#include <sys/mman.h>
#include <unistd.h>

#include "Require.h"
#include "support/Profiles.h"

using lumora::FrameExportHandle;
using lumora::FramePlaneLayout;
using media_backend::GstVideoBackend;

namespace {

__extension__ using Wide = unsigned __int128;  // holds every sum of the rules below

struct State {
  const GstVideoBackend imx{imxProfile()};
  const GstVideoBackend nvidia{nvidiaProfile()};
  const int fd = memfd_create("frame", MFD_CLOEXEC);
  simulated_board::Surface surface{};
};

State& state() {
  static State theState;
  return theState;
}

// Any leaked descriptor moves it.
int nextDescriptor() {
  const int next = dup(state().fd);
  close(next);
  return next;
}

std::uint64_t small(FuzzedDataProvider& data) {
  return data.ConsumeBool() ? data.ConsumeIntegralInRange<std::uint32_t>(0, 256) : 0;
}

// A frame as cameras export them, with any gaps.
FrameExportHandle goodFrame(FuzzedDataProvider& data) {
  FrameExportHandle handle;
  handle.valid = handle.isDmaBuf = true;
  handle.fd = state().fd;
  handle.planeCount = 2;
  handle.surface = &state().surface;
  handle.width = static_cast<std::uint32_t>(2 * (1 + small(data)));
  handle.height = static_cast<std::uint32_t>(2 * (1 + small(data)));
  const auto rowBytes = static_cast<std::uint32_t>(handle.width + small(data));
  const auto stride = static_cast<std::uint32_t>(rowBytes + small(data));
  const std::uint64_t lumaOffset = small(data);
  const std::uint64_t lumaEnd = lumaOffset + std::uint64_t{stride} * (handle.height - 1) + rowBytes;
  const std::uint64_t chromaOffset = lumaEnd + small(data);
  handle.planes[0] = {lumaOffset, stride, rowBytes, handle.height};
  handle.planes[1] = {chromaOffset, stride, rowBytes, handle.height / 2};
  handle.size = chromaOffset + std::uint64_t{stride} * (handle.height / 2 - 1) + rowBytes;
  return handle;
}

// Mostly by one, where the rules have their edges.
template <typename Integer>
void spoil(FuzzedDataProvider& data, Integer& value) {
  switch (data.ConsumeIntegralInRange(0, 2)) {
    case 0:
      ++value;
      break;
    case 1:
      --value;
      break;
    default:
      value = data.ConsumeIntegral<Integer>();
      break;
  }
}

void spoilOne(FuzzedDataProvider& data, FrameExportHandle& handle) {
  FramePlaneLayout& plane = handle.planes[data.ConsumeIntegralInRange(0, 1)];
  switch (data.ConsumeIntegralInRange(0, 11)) {
    case 0:
      handle.valid = data.ConsumeBool();
      break;
    case 1:
      handle.isDmaBuf = data.ConsumeBool();
      break;
    case 2:
      spoil(data, handle.planeCount);
      break;
    case 3:
      handle.fd = data.ConsumeIntegral<std::int32_t>();
      break;
    case 4:
      spoil(data, handle.size);
      break;
    case 5:
      spoil(data, handle.width);
      break;
    case 6:
      spoil(data, handle.height);
      break;
    case 7:
      spoil(data, plane.offset);
      break;
    case 8:
      spoil(data, plane.stride);
      break;
    case 9:
      spoil(data, plane.rowBytes);
      break;
    case 10:
      spoil(data, plane.rows);
      break;
    default:
      handle.surface = nullptr;
      break;
  }
}

Wide endOf(const FramePlaneLayout& plane) {
  return Wide{plane.offset} + Wide{plane.rows - 1} * plane.stride + plane.rowBytes;
}

// There are bytes, rows do not overlap, and the last one ends inside.
bool liesInside(const FramePlaneLayout& plane, std::uint64_t total) {
  return plane.rows > 0 && plane.rowBytes > 0 && plane.stride >= plane.rowBytes &&
         endOf(plane) <= total;
}

bool isNv12Frame(const FrameExportHandle& h) {
  const FramePlaneLayout& luma = h.planes[0];
  const FramePlaneLayout& chroma = h.planes[1];
  const bool isEven = (h.width | h.height) % 2 == 0;
  const bool holdsPicture = luma.rowBytes >= h.width && luma.rows == h.height &&
                            chroma.rowBytes >= h.width && chroma.rows == h.height / 2;
  return h.valid && h.isDmaBuf && h.planeCount == 2 && h.width > 0 && h.height > 0 && isEven &&
         holdsPicture && liesInside(luma, h.size) && liesInside(chroma, h.size) &&
         chroma.offset >= endOf(luma) && luma.stride < 1U << 31 && chroma.stride < 1U << 31;
}

void checkEndOffset(const FramePlaneLayout& plane, std::uint64_t total) {
  constexpr std::size_t kUntouched = 4711;
  std::size_t end = kUntouched;
  const bool inside = plane.endOffset(total, end);
  require(inside == liesInside(plane, total), "endOffset() tells what lies inside");
  require(end == (inside ? endOf(plane) : kUntouched),
          "endOffset() writes the end, if there is one");
}

void checkNv12Buffer(GstBuffer* buffer, const FrameExportHandle& handle) {
  require(gst_buffer_n_memory(buffer) == 1 && gst_buffer_get_size(buffer) == handle.size,
          "one memory over the whole dma-buf");
  const GstVideoMeta* const meta = gst_buffer_get_video_meta(buffer);
  require(meta != nullptr && meta->format == GST_VIDEO_FORMAT_NV12 && meta->n_planes == 2 &&
              meta->width == handle.width && meta->height == handle.height,
          "video meta of an NV12 picture");
  for (int i = 0; i < 2; ++i) {
    require(meta->offset[i] == handle.planes[i].offset &&
                meta->stride[i] == static_cast<gint>(handle.planes[i].stride),
            "video meta says where the planes are");
  }
}

void checkWrapping(const GstVideoBackend& backend, const FrameExportHandle& handle, bool accepted) {
  const auto frame = std::make_shared<int>();
  const int next = nextDescriptor();
  GstBuffer* const buffer = backend.wrapFrame(handle, frame);
  require((buffer != nullptr) == accepted, "wrapFrame() takes what fits, and nothing else");
  require(frame.use_count() == (accepted ? 2 : 1), "one reference travels with the buffer");
  if (buffer != nullptr) {
    if (&backend == &state().imx) {
      checkNv12Buffer(buffer, handle);
    }
    gst_buffer_unref(buffer);
  }
  require(frame.use_count() == 1, "the frame is let go with the buffer");
  require(nextDescriptor() == next, "no descriptor stays open");
}

}  // namespace

extern "C" int LLVMFuzzerInitialize(int* /*argc*/, char*** /*argv*/) {
  setenv("GST_REGISTRY_DISABLE", "yes", 1);  // no plugin takes part
  gst_init(nullptr, nullptr);
  g_log_set_always_fatal(G_LOG_LEVEL_CRITICAL);
  return 0;
}

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* bytes, std::size_t size) {
  FuzzedDataProvider data(bytes, size);
  FrameExportHandle handle = goodFrame(data);
  for (int faults = data.ConsumeIntegralInRange(0, 4); faults > 0; --faults) {
    spoilOne(data, handle);
  }
  for (int i = 0; i < 2; ++i) {
    checkEndOffset(handle.planes[i], handle.size);
  }
  const bool isOpen = fcntl(handle.fd, F_GETFD) != -1;
  checkWrapping(state().imx, handle, isOpen && isNv12Frame(handle));
  checkWrapping(state().nvidia, handle, handle.valid && handle.surface != nullptr);
  return 0;
}
