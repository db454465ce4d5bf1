// NV12 samples of any size and layout, with buffers that are too short: a picture or a message, and
// no byte is read past the buffer.

#include <string>
#include <vector>

#include <fuzzer/FuzzedDataProvider.h>
#include <gst/video/video.h>
#include <media_backend/GstNv12Sample.h>

#include "Require.h"

namespace {

GstCaps* anyCaps(FuzzedDataProvider& data) {
  static const char* const kFormats[] = {"NV12", "NV12", "I420", "NV12_4L4", "ENCODED"};
  static const char* const kModes[] = {"progressive", "interleaved", "alternate"};
  const auto dimension = [&data] {
    return data.ConsumeBool() ? data.ConsumeIntegralInRange<int>(-2, 300)
                              : data.ConsumeIntegral<int>();
  };
  return gst_caps_new_simple(
      "video/x-raw", "format", G_TYPE_STRING, data.PickValueInArray(kFormats), "width", G_TYPE_INT,
      dimension(), "height", G_TYPE_INT, dimension(), "framerate", GST_TYPE_FRACTION, 30, 1,
      "interlace-mode", G_TYPE_STRING, data.PickValueInArray(kModes), nullptr);
}

}  // namespace

extern "C" int LLVMFuzzerInitialize(int* /*argc*/, char*** /*argv*/) {
  setenv("GST_REGISTRY_DISABLE", "yes", 1);  // no plugin takes part
  gst_init(nullptr, nullptr);
  return 0;
}

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* input, std::size_t inputSize) {
  FuzzedDataProvider data(input, inputSize);
  g_autoptr(GstCaps) caps = anyCaps(data);
  GstVideoInfo info;
  gst_video_info_init(&info);
  const bool isNv12 = gst_video_info_from_caps(&info, caps) != FALSE &&
                      GST_VIDEO_INFO_FORMAT(&info) == GST_VIDEO_FORMAT_NV12;
  auto size = data.ConsumeIntegralInRange<gsize>(1, 4096);
  if (info.size > 0 && info.size < (1U << 20U) && data.ConsumeBool()) {
    size = info.size + data.ConsumeIntegralInRange<gsize>(0, 2) - 1;
  }
  // Of exactly this size, so that its end is watched.
  g_autoptr(GstBuffer) buffer = gst_buffer_new_wrapped(g_malloc0(size), size);
  g_autoptr(GstSample) sample = gst_sample_new(buffer, caps, nullptr, nullptr);
  std::vector<std::uint8_t> scratch;
  std::string error;
  const auto picture = media_backend::gst_source::picture_from_nv12_sample(sample, scratch, error);
  require((picture == nullptr) != error.empty(), "a picture or a message");
  require(isNv12 || picture == nullptr, "no picture without NV12");
  // An alternate picture has the size of one field.
  const bool isWhole = isNv12 && info.width > 0 && info.height > 0 && size >= info.size &&
                       GST_VIDEO_INFO_INTERLACE_MODE(&info) != GST_VIDEO_INTERLACE_MODE_ALTERNATE;
  require(!isWhole || picture != nullptr, "a whole frame is a picture");
  return 0;
}
