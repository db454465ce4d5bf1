// Pictures from NV12 samples. Where the layout is the library's own, beside the picture's
// construction alone; where rows have to be repacked, beside one memcpy() of the visible bytes and
// the same construction. Argument of a run: the size (0: 1920 x 1080, 1: 3840 x 2160). A sample of
// one row more has a gap between its planes, so it is repacked.

#include <cstdint>
#include <cstring>
#include <memory>
#include <string>
#include <vector>

#include <malloc.h>

#include <benchmark/benchmark.h>
#include <gst/video/video.h>
#include <lumora/LumoraPicture.h>
#include <media_backend/GstNv12Sample.h>

#include "Ratios.h"

namespace {

const std::vector<Ratio> kRatios = {
    {"1080p: direct / construction alone", "direct/0", "construction/0", 1.02},
    {"4K: direct / construction alone", "direct/1", "construction/1", 1.02},
    {"1080p: repacked / memcpy and construction", "repacked/0", "memcpy/0", 1.1},
    {"4K: repacked / memcpy and construction", "repacked/1", "memcpy/1", 1.1},
};

struct Size {
  unsigned width;
  unsigned height;
};

Size sizeOf(const benchmark::State& state) {
  return state.range(0) == 0 ? Size{1920, 1080} : Size{3840, 2160};
}

void fromSample(benchmark::State& state, const Size& size) {
  GstVideoInfo info;
  gst_video_info_set_format(&info, GST_VIDEO_FORMAT_NV12, size.width, size.height);
  g_autoptr(GstCaps) caps = gst_video_info_to_caps(&info);
  g_autoptr(GstBuffer) buffer = gst_buffer_new_allocate(nullptr, info.size, nullptr);
  gst_buffer_memset(buffer, 0, 0x5a, info.size);
  g_autoptr(GstSample) sample = gst_sample_new(buffer, caps, nullptr, nullptr);
  std::vector<std::uint8_t> scratch;
  std::string error;
  // The first picture takes fresh pages for `scratch`, which later ones use again.
  media_backend::gst_source::picture_from_nv12_sample(sample, scratch, error);
  for (auto _ : state) {
    benchmark::DoNotOptimize(
        media_backend::gst_source::picture_from_nv12_sample(sample, scratch, error));
  }
  if (!error.empty()) {
    state.SkipWithError(error.c_str());
  }
}

void direct(benchmark::State& state) {
  fromSample(state, sizeOf(state));
}

void repacked(benchmark::State& state) {
  const Size size = sizeOf(state);
  fromSample(state, {size.width, size.height + 1});
}

void construction(benchmark::State& state) {
  const Size size = sizeOf(state);
  const std::vector<std::uint8_t> pixels(std::size_t{size.width} * size.height * 3 / 2, 0x5a);
  for (auto _ : state) {
    benchmark::DoNotOptimize(
        lumora::LumoraPicture::fromNv12Host(pixels.data(), size.width, size.height, size.width));
  }
}

void copyAndConstruct(benchmark::State& state) {
  const Size size = sizeOf(state);
  const std::vector<std::uint8_t> pixels(std::size_t{size.width} * size.height * 3 / 2, 0x5a);
  std::vector<std::uint8_t> packed(pixels.size());
  for (auto _ : state) {
    std::memcpy(packed.data(), pixels.data(), packed.size());
    benchmark::DoNotOptimize(
        lumora::LumoraPicture::fromNv12Host(packed.data(), size.width, size.height, size.width));
  }
}

}  // namespace

BENCHMARK(direct)->Arg(0)->Arg(1);
BENCHMARK(construction)->Arg(0)->Arg(1);
BENCHMARK(repacked)->Arg(0)->Arg(1);
BENCHMARK(copyAndConstruct)->Name("memcpy")->Arg(0)->Arg(1);

int main(int argc, char** argv) {
  media_backend::gst_source::ensure_initialized();
  // A picture's memory comes from the heap and stays there: fresh pages are not what is measured.
  mallopt(M_MMAP_MAX, 0);
  mallopt(M_TRIM_THRESHOLD, 1 << 30);
  return runAndCompare(argc, argv, kRatios);
}
