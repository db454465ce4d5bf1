// wrapFrame() on both platforms, beside the same GStreamer calls written out by hand: no look at
// the handle, no failure that is handled. Both give their buffer back at once.

#include <memory>
#include <string>
#include <utility>
#include <vector>

#include <benchmark/benchmark.h>
#include <gst/allocators/gstdmabuf.h>
#include <gst/gst.h>
#include <gst/video/video.h>
#include <lumora/FrameExport.h>
#include <lumora/LumoraPicture.h>
#include <media_backend/GstVideoBackend.h>
#include <unistd.h>

#include "Ratios.h"
#include "support/Profiles.h"

namespace {

using media_backend::GstVideoBackend;

const std::vector<Ratio> kRatios = {
    {"i.MX: wrapFrame() / its calls by hand", "imx", "imx_by_hand", 1.05},
    {"NVIDIA: wrapFrame() / its calls by hand", "nvidia", "nvidia_by_hand", 1.05},
};

std::shared_ptr<lumora::ExportedFrame> exportedFrame() {
  const std::vector<unsigned char> pixels(std::size_t{1920} * 1080 * 3 / 2, 0x80);
  return lumora::ExportedFrame::fromPicture(
      *lumora::LumoraPicture::fromNv12Host(pixels.data(), 1920, 1080, 1920));
}

template <typename Wrap>
void run(benchmark::State& state, Wrap wrap) {
  const std::shared_ptr<lumora::ExportedFrame> frame = exportedFrame();
  for (auto _ : state) {
    GstBuffer* const buffer = wrap(frame);
    if (buffer == nullptr) {
      state.SkipWithError("no buffer");
      break;
    }
    gst_buffer_unref(buffer);
  }
}

void wrapFrame(benchmark::State& state, const GstVideoBackend::Profile& profile) {
  const GstVideoBackend backend(profile);
  run(state, [&backend](const std::shared_ptr<lumora::ExportedFrame>& frame) {
    return backend.wrapFrame(frame->handle(), frame);
  });
}

void freeReference(gpointer reference) {
  delete static_cast<std::shared_ptr<void>*>(reference);
}

GstBuffer* wrapDmaBuf(const std::shared_ptr<lumora::ExportedFrame>& frame) {
  static const GQuark kQuark = g_quark_from_static_string("bench.frame");
  const lumora::FrameExportHandle& handle = frame->handle();
  GstBuffer* const buffer = gst_buffer_new();
  GstAllocator* const allocator = gst_dmabuf_allocator_new();
  gst_buffer_append_memory(buffer,
                           gst_dmabuf_allocator_alloc(allocator, dup(handle.fd), handle.size));
  gst_object_unref(allocator);
  gsize offsets[GST_VIDEO_MAX_PLANES] = {handle.planes[0].offset, handle.planes[1].offset};
  gint strides[GST_VIDEO_MAX_PLANES] = {static_cast<gint>(handle.planes[0].stride),
                                        static_cast<gint>(handle.planes[1].stride)};
  gst_buffer_add_video_meta_full(buffer, GST_VIDEO_FRAME_FLAG_NONE, GST_VIDEO_FORMAT_NV12,
                                 handle.width, handle.height, 2, offsets, strides);
  gst_mini_object_set_qdata(GST_MINI_OBJECT_CAST(buffer), kQuark, new std::shared_ptr<void>(frame),
                            freeReference);
  return buffer;
}

GstBuffer* wrapSurface(const std::shared_ptr<lumora::ExportedFrame>& frame) {
  lumora::StreamingFrameMemory memory;
  lumora::prepareStreamingFrameMemory(frame->handle(), memory);
  GstBuffer* const buffer = gst_buffer_new();
  gst_buffer_append_memory(
      buffer, gst_memory_new_wrapped(static_cast<GstMemoryFlags>(0), memory.data, memory.size, 0,
                                     memory.size, new std::shared_ptr<void>(frame), freeReference));
  return buffer;
}

}  // namespace

BENCHMARK_CAPTURE(wrapFrame, imx, imxProfile())->Name("imx");
BENCHMARK_CAPTURE(wrapFrame, nvidia, nvidiaProfile())->Name("nvidia");
BENCHMARK_CAPTURE(run, imx_by_hand, wrapDmaBuf)->Name("imx_by_hand");
BENCHMARK_CAPTURE(run, nvidia_by_hand, wrapSurface)->Name("nvidia_by_hand");

int main(int argc, char** argv) {
  gst_init(nullptr, nullptr);
  return runAndCompare(argc, argv, kRatios);
}
