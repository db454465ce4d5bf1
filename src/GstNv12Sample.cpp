#include <media_backend/GstNv12Sample.h>

#include <cmath>
#include <cstring>
#include <mutex>
#include <numeric>

#include <gst/video/video.h>

#include "gst/MappedBuffer.h"

namespace media_backend::gst_source {
namespace {

// Layout of an NV12 picture's planes; lengths in bytes.
struct Nv12Layout {
  std::uint64_t width;
  std::uint64_t height;
  std::uint64_t lumaOffset;
  std::uint64_t chromaOffset;
  std::uint64_t lumaStride;
  std::uint64_t chromaStride;

  // Whether both planes end within `size` bytes. Offsets are arbitrary; rows times stride, both
  // below 2^32, cannot overflow.
  bool fits(std::uint64_t size) const {
    const auto ends = [size](std::uint64_t offset, std::uint64_t bytes) {
      return offset <= size && bytes <= size - offset;
    };
    return ends(lumaOffset, height * lumaStride) && ends(chromaOffset, height / 2 * chromaStride);
  }
  // Chroma follows the luma rows directly, with the same stride.
  bool isContiguous() const {
    return lumaOffset == 0 && lumaStride == chromaStride && height * lumaStride == chromaOffset;
  }
};

// False if the caps give no valid layout.
bool layoutOf(const GstVideoInfo& info, Nv12Layout& layout) {
  if (info.stride[0] <= 0 || info.stride[1] <= 0 || info.width <= 0) {
    return false;
  }
  layout.width = static_cast<std::uint64_t>(info.width);
  layout.height = even_dimension(static_cast<unsigned int>(info.height));
  layout.lumaOffset = info.offset[0];
  layout.chromaOffset = info.offset[1];
  layout.lumaStride = static_cast<std::uint64_t>(info.stride[0]);
  layout.chromaStride = static_cast<std::uint64_t>(info.stride[1]);
  return true;
}

std::uint8_t* copyRows(const std::uint8_t* source, std::uint64_t stride, std::uint64_t rows,
                       std::uint64_t width, std::uint8_t* target) {
  if (stride == width) {  // one long copy, for which memcpy() may bypass the cache
    std::memcpy(target, source, rows * width);
    return target + rows * width;
  }
  for (std::uint64_t row = 0; row < rows; ++row) {
    std::memcpy(target, source + row * stride, width);
    target += width;
  }
  return target;
}

void repack(const std::uint8_t* source, const Nv12Layout& layout,
            std::vector<std::uint8_t>& packed) {
  packed.resize(layout.width * layout.height * 3 / 2);
  std::uint8_t* const chroma = copyRows(source + layout.lumaOffset, layout.lumaStride,
                                        layout.height, layout.width, packed.data());
  copyRows(source + layout.chromaOffset, layout.chromaStride, layout.height / 2, layout.width,
           chroma);
}

}  // namespace

void ensure_initialized() {
  static std::once_flag once;
  std::call_once(once, [] {
    int argc = 0;
    char** argv = nullptr;
    gst_init(&argc, &argv);
  });
}

unsigned int even_dimension(unsigned int value) {
  return value > 2 ? value & ~1U : 2;
}

std::pair<int, int> fps_fraction(double fps) {
  int thousandths = 0;
  if (fps < 0.1) {
    thousandths = 100;
  } else if (fps > 240.0) {
    thousandths = 240000;
  } else {
    thousandths = static_cast<int>(std::lround(fps * 1000.0));
  }
  const int divisor = std::gcd(thousandths > 0 ? thousandths : 1, 1000);
  return {thousandths / divisor, 1000 / divisor};
}

std::shared_ptr<lumora::LumoraPicture> picture_from_nv12_sample(GstSample* sample,
                                                                std::vector<std::uint8_t>& scratch,
                                                                std::string& error) {
  const auto fail = [&error](const char* message) {
    error = message;
    return std::shared_ptr<lumora::LumoraPicture>();
  };

  GstBuffer* const buffer = gst_sample_get_buffer(sample);
  GstCaps* const caps = gst_sample_get_caps(sample);
  if (buffer == nullptr || caps == nullptr) {
    return fail("GStreamer sample is missing buffer or caps");
  }
  GstVideoInfo info;
  if (!gst_video_info_from_caps(&info, caps)) {
    return fail("failed to parse GStreamer video caps");
  }
  if (GST_VIDEO_INFO_FORMAT(&info) != GST_VIDEO_FORMAT_NV12) {
    return fail("GStreamer sample is not NV12");
  }
  const MappedBuffer map(buffer);
  if (!map) {
    return fail("failed to map GStreamer buffer");
  }
  Nv12Layout layout{};
  if (!layoutOf(info, layout)) {
    return fail("invalid NV12 layout from GStreamer");
  }
  if (!layout.fits(map.size())) {
    return fail("GStreamer NV12 buffer is shorter than its caps layout");
  }

  const std::uint8_t* pixels = map.data();
  std::uint64_t stride = layout.lumaStride;
  if (!layout.isContiguous()) {
    repack(map.data(), layout, scratch);
    pixels = scratch.data();
    stride = layout.width;
  }
  std::shared_ptr<lumora::LumoraPicture> picture = lumora::LumoraPicture::fromNv12Host(
      pixels, static_cast<unsigned int>(layout.width), static_cast<unsigned int>(layout.height),
      static_cast<unsigned int>(stride));
  if (picture == nullptr) {
    return fail("LumoraPicture::fromNv12Host failed");
  }
  return picture;
}

}  // namespace media_backend::gst_source
