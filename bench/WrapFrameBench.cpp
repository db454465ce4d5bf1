// wrapFrame() on both platforms, beside the same GStreamer calls written out by hand: no look at
// the handle, no failure that is handled. Both give their buffer back at once.

#include <memory>
#include <vector>

#include <benchmark/benchmark.h>
#include <gst/gst.h>
#include <lumora/FrameExport.h>
#include <lumora/LumoraPicture.h>
#include <media_backend/GstVideoBackend.h>

#include "Ratios.h"
#include "support/Profiles.h"
#include "support/WrapByHand.h"

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

}  // namespace

BENCHMARK_CAPTURE(wrapFrame, imx, imxProfile())->Name("imx");
BENCHMARK_CAPTURE(wrapFrame, nvidia, nvidiaProfile())->Name("nvidia");
BENCHMARK_CAPTURE(run, imx_by_hand, wrapDmaBufByHand)->Name("imx_by_hand");
BENCHMARK_CAPTURE(run, nvidia_by_hand, wrapSurfaceByHand)->Name("nvidia_by_hand");

int main(int argc, char** argv) {
  gst_init(nullptr, nullptr);
  return runAndCompare(argc, argv, kRatios);
}
