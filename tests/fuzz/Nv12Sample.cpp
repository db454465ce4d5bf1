// Samples with any caps and any buffer: a picture of just the bytes where the caps say the planes
// are, or the one message that says what is wrong.

#include <cstring>
#include <memory>
#include <string>
#include <vector>

#include <fuzzer/FuzzedDataProvider.h>
#include <gst/video/video.h>
#include <media_backend/GstNv12Sample.h>
#include <sys/mman.h>

#include "Require.h"

namespace {

__extension__ using Wide = __int128;  // holds every sum of the rules below

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

std::vector<std::uint8_t> bytesOf(GstBuffer* buffer) {
  std::vector<std::uint8_t> bytes(gst_buffer_get_size(buffer));
  gst_buffer_extract(buffer, 0, bytes.data(), bytes.size());
  return bytes;
}

unsigned int evenHeight(const GstVideoInfo& info) {
  return info.height < 4 ? 2 : static_cast<unsigned int>(info.height / 2 * 2);
}

Wide planeEnd(const GstVideoInfo& info, int plane) {
  const Wide rows = evenHeight(info) / (plane == 0 ? 1 : 2);
  return Wide{info.offset[plane]} + rows * info.stride[plane];
}

// What has to be said of a sample, null if it is good.
const char* complaint(GstCaps* caps, GstBuffer* buffer, GstVideoInfo& info) {
  if (caps == nullptr || buffer == nullptr) {
    return "GStreamer sample is missing buffer or caps";
  }
  if (!gst_caps_is_fixed(caps) || !gst_video_info_from_caps(&info, caps)) {
    return "failed to parse GStreamer video caps";
  }
  if (GST_VIDEO_INFO_FORMAT(&info) != GST_VIDEO_FORMAT_NV12) {
    return "GStreamer sample is not NV12";
  }
  if (info.stride[0] <= 0 || info.stride[1] <= 0 || info.width == 0) {
    return "invalid NV12 layout from GStreamer";
  }
  const Wide size = gst_buffer_get_size(buffer);
  if (planeEnd(info, 0) > size || planeEnd(info, 1) > size) {
    return "GStreamer NV12 buffer is shorter than its caps layout";
  }
  return nullptr;
}

void checkPlane(const std::uint8_t* plane, unsigned int rows, unsigned int width,
                const std::vector<std::uint8_t>& bytes, gsize offset, int stride) {
  for (unsigned int row = 0; row < rows; ++row) {
    require(
        std::memcmp(plane + std::size_t{row} * width,
                    bytes.data() + offset + std::size_t{row} * static_cast<unsigned int>(stride),
                    width) == 0,
        "the picture has the bytes that the caps point at");
  }
}

void checkPicture(const lumora::LumoraPicture& picture, const GstVideoInfo& info,
                  GstBuffer* buffer) {
  const auto width = static_cast<unsigned int>(info.width);
  const unsigned int height = evenHeight(info);
  require(picture.width() == width && picture.height() == height,
          "the picture has the caps' size, its height rounded down to even");
  const std::vector<std::uint8_t> bytes = bytesOf(buffer);
  checkPlane(picture.luma(), height, width, bytes, info.offset[0], info.stride[0]);
  checkPlane(picture.chroma(), height / 2, width, bytes, info.offset[1], info.stride[1]);
}

gsize anySize(FuzzedDataProvider& data, GstCaps* caps) {
  GstVideoInfo info;
  gst_video_info_init(&info);
  if (caps != nullptr && gst_caps_is_fixed(caps) && data.ConsumeBool() &&
      gst_video_info_from_caps(&info, caps)) {
    return (info.size + static_cast<gsize>(data.ConsumeIntegral<std::int8_t>())) % kReserved;
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
  const char* const expected = complaint(caps, buffer, info);
  if (expected == nullptr && gst_buffer_get_size(buffer) > kMostBytes) {
    return 0;
  }

  g_autoptr(GstSample) sample = gst_sample_new(buffer, caps, nullptr, nullptr);
  std::vector<std::uint8_t> scratch(7);
  std::string error = "as it was";
  const auto picture = media_backend::gst_source::picture_from_nv12_sample(sample, scratch, error);
  require(error == (expected != nullptr ? expected : "as it was"), "one message, if any");
  require((picture == nullptr) == (expected != nullptr), "a picture or a message");
  if (picture != nullptr) {
    checkPicture(*picture, info, buffer);
    require(scratch.size() == 7 ||
                scratch.size() == std::size_t{picture->width()} * picture->height() * 3 / 2,
            "scratch holds one packed picture, or is left alone");
  }
  return 0;
}
