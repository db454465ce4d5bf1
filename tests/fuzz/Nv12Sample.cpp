// Samples with any caps and any buffer: a picture with the rows of the frame that GStreamer maps,
// or a message.

#include <cstring>
#include <string>
#include <vector>

#include <fuzzer/FuzzedDataProvider.h>
#include <gst/video/video.h>
#include <media_backend/GstNv12Sample.h>
#include <sys/mman.h>

#include "Require.h"

namespace {

constexpr gsize kReserved = gsize{16} << 30;
constexpr gsize kMostBytes = 1 << 20;  // of a picture that is really made

// Readable memory of any size, which costs nothing while it is not read.
void* reserved() {
  static void* const memory =
      mmap(nullptr, kReserved, PROT_READ, MAP_PRIVATE | MAP_ANONYMOUS | MAP_NORESERVE, -1, 0);
  return memory;
}

GstCaps* anyCaps(FuzzedDataProvider& data) {
  static const char* const kFormats[] = {"NV12", "NV12",  "NV12",     "NV21",   "I420",
                                         "NV16", "GRAY8", "NV12_4L4", "ENCODED"};
  static const char* const kModes[] = {"progressive", "interleaved", "mixed", "fields",
                                       "alternate"};
  if (data.ConsumeBool() && data.ConsumeBool()) {
    return gst_caps_from_string(data.ConsumeRandomLengthString(200).c_str());
  }
  const auto dimension = [&data] {
    return data.ConsumeBool() ? data.ConsumeIntegralInRange<int>(-2, 300)
                              : data.ConsumeIntegral<int>();
  };
  GstCaps* const caps = gst_caps_new_simple(
      "video/x-raw", "format", G_TYPE_STRING, data.PickValueInArray(kFormats), "width", G_TYPE_INT,
      dimension(), "height", G_TYPE_INT, dimension(), "framerate", GST_TYPE_FRACTION, 30, 1,
      "interlace-mode", G_TYPE_STRING, data.PickValueInArray(kModes), nullptr);
  if (data.ConsumeIntegral<std::uint8_t>() > 240) {
    gst_caps_set_features(caps, 0, gst_caps_features_new("memory:NVMM", nullptr));
  }
  return caps;
}

// `size` bytes: as one or two memories that end where they end, or out of the reserve.
GstBuffer* anyBuffer(FuzzedDataProvider& data, gsize size) {
  GstBuffer* const buffer = gst_buffer_new();
  if (size > kMostBytes) {
    gst_buffer_append_memory(buffer, gst_memory_new_wrapped(GST_MEMORY_FLAG_READONLY, reserved(),
                                                            size, 0, size, nullptr, nullptr));
    return buffer;
  }
  const gsize first = data.ConsumeBool() ? size : data.ConsumeIntegralInRange<gsize>(0, size);
  gsize place = 0;
  for (const gsize part : {first, size - first}) {
    auto* const bytes = static_cast<std::uint8_t*>(g_malloc(part));
    for (gsize i = 0; i < part; ++i, ++place) {
      bytes[i] = static_cast<std::uint8_t>(place * 167 + (place >> 8U) * 13);
    }
    gst_buffer_append_memory(buffer, gst_memory_new_wrapped(static_cast<GstMemoryFlags>(0), bytes,
                                                            part, 0, part, bytes, g_free));
  }
  return buffer;
}

// Whether GStreamer maps the frame. It wants more than the planes of a height that is not a
// multiple of two, interlaced of four: a buffer that made a picture gets that. The picture has the
// frame's rows.
bool holdsFrame(const GstVideoInfo& info, GstBuffer* buffer, const lumora::LumoraPicture* picture) {
  g_autoptr(GstBuffer) whole = gst_buffer_copy(buffer);
  if (picture != nullptr) {
    gst_buffer_append_memory(whole, gst_allocator_alloc(nullptr, info.size, nullptr));
  }
  GstVideoFrame frame;
  if (!gst_video_frame_map(&frame, &info, whole, GST_MAP_READ)) {
    return false;
  }
  for (unsigned int row = 0; picture != nullptr && row < picture->height() * 3 / 2; ++row) {
    const int plane = row < picture->height() ? 0 : 1;
    const auto line = static_cast<int>(row - (plane == 0 ? 0 : picture->height()));
    const auto* const pixels = (plane == 0 ? picture->luma() : picture->chroma()) +
                               line * static_cast<int>(picture->stride());
    const auto* const source = static_cast<const std::uint8_t*>(frame.data[plane]);
    require(std::memcmp(pixels, source + line * frame.info.stride[plane], picture->width()) == 0,
            "the picture has the frame's rows");
  }
  gst_video_frame_unmap(&frame);
  return true;
}

gsize anySize(FuzzedDataProvider& data, GstCaps* caps) {
  GstVideoInfo info;
  gst_video_info_init(&info);
  if (caps != nullptr && gst_caps_is_fixed(caps) && data.ConsumeBool() &&
      gst_video_info_from_caps(&info, caps)) {
    return (info.size + data.ConsumeIntegralInRange<gsize>(0, 4) - 2) % kReserved;
  }
  return data.ConsumeBool() ? data.ConsumeIntegralInRange<gsize>(0, 4096)
                            : data.ConsumeIntegralInRange<gsize>(0, kReserved - 1);
}

}  // namespace

extern "C" int LLVMFuzzerInitialize(int* /*argc*/, char*** /*argv*/) {
  setenv("GST_REGISTRY_DISABLE", "yes", 1);  // no plugin takes part
  gst_init(nullptr, nullptr);
  // GStreamer complains of caps that are not fixed, which is no more than that.
  g_log_set_default_handler([](const gchar*, GLogLevelFlags, const gchar*, gpointer) {}, nullptr);
  return 0;
}

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* input, std::size_t inputSize) {
  FuzzedDataProvider data(input, inputSize);
  g_autoptr(GstCaps) caps = anyCaps(data);
  g_autoptr(GstBuffer) buffer =
      data.ConsumeIntegral<std::uint8_t>() == 255 ? nullptr : anyBuffer(data, anySize(data, caps));
  GstVideoInfo info;
  gst_video_info_init(&info);
  const bool isVideo = caps != nullptr && buffer != nullptr && gst_caps_is_fixed(caps) &&
                       gst_video_info_from_caps(&info, caps);
  const bool isNv12 = isVideo && GST_VIDEO_INFO_FORMAT(&info) == GST_VIDEO_FORMAT_NV12;
  const gsize size = buffer != nullptr ? gst_buffer_get_size(buffer) : 0;
  if (isNv12 && size > kMostBytes && info.size / 2 <= size) {
    return 0;  // may be a picture, a very large one: GStreamer rounds heights up, to four rows
  }

  g_autoptr(GstSample) sample = gst_sample_new(buffer, caps, nullptr, nullptr);
  std::vector<std::uint8_t> scratch;
  std::string error;
  const auto picture = media_backend::gst_source::picture_from_nv12_sample(sample, scratch, error);
  require((picture == nullptr) != error.empty(), "a picture or a message");
  require(isNv12 || picture == nullptr, "no picture without NV12");
  if (picture == nullptr && isNv12 && size <= kMostBytes) {
    // An alternate picture has the size of one field, a picture at least two rows.
    require(!holdsFrame(info, buffer, nullptr) || info.width <= 0 || info.height < 2 ||
                GST_VIDEO_INFO_INTERLACE_MODE(&info) == GST_VIDEO_INTERLACE_MODE_ALTERNATE,
            "a whole frame is a picture");
  } else if (picture != nullptr) {
    require(picture->width() == static_cast<unsigned int>(info.width), "the caps' width");
    require(holdsFrame(info, buffer, picture.get()), "a picture is of a frame");
  }
  return 0;
}
