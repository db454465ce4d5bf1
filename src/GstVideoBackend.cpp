#include <media_backend/GstVideoBackend.h>

#include <algorithm>
#include <cctype>
#include <limits>
#include <new>
#include <string_view>
#include <utility>

#include <gst/allocators/gstdmabuf.h>
#include <gst/video/video.h>
#include <unistd.h>

#include "Description.h"
#include "gst/UniqueFd.h"

namespace media_backend {
namespace {

using Codec = GstVideoBackend::Codec;
using EncoderConfig = GstVideoBackend::EncoderConfig;
using Platform = GstVideoBackend::Platform;
using Profile = GstVideoBackend::Profile;

// Platform probe

bool hasElement(const char* name) {
  g_autoptr(GstElementFactory) factory = gst_element_factory_find(name);
  return factory != nullptr;
}

// Selects the NVIDIA platform if the board has one of its converters and one of its encoders.
bool probeNvidia(Profile& profile) {
  const bool hasVidconv = hasElement("nvvidconv");
  const bool hasVideoconvert = hasElement("nvvideoconvert");
  const bool hasH264 = hasElement("nvv4l2h264enc");
  const bool hasH265 = hasElement("nvv4l2h265enc");
  if (!(hasVidconv || hasVideoconvert) || !(hasH264 || hasH265)) {
    return false;
  }
  profile.platform = Platform::Nvidia;
  profile.name = "nvidia-nvmm";
  profile.inputConverter = hasVidconv ? "nvvidconv" : "nvvideoconvert";
  profile.uploadConverter = hasVideoconvert ? "nvvideoconvert" : "nvvidconv";
  profile.h264Encoder = "nvv4l2h264enc";
  profile.h265Encoder = "nvv4l2h265enc";
  profile.jpegEncoder = "nvjpegenc";
  profile.hasH264 = hasH264;
  profile.hasH265 = hasH265;
  profile.hasAv1 = hasElement("nvv4l2av1enc") && hasElement("av1parse");
  profile.hasJpeg = hasElement("nvjpegenc");
  return true;
}

// Selects the i.MX platform if the board has one of its VPU encoders.
bool probeImxVpu(Profile& profile) {
  const bool hasH264 = hasElement("vpuenc_h264");
  const bool hasH265 = hasElement("vpuenc_hevc");
  if (!hasH264 && !hasH265) {
    return false;
  }
  profile.platform = Platform::ImxVpu;
  profile.name = "dmabuf-nv12-vpu";
  profile.inputConverter = "identity";
  profile.uploadConverter = hasElement("imxvideoconvert_g2d") ? "imxvideoconvert_g2d" : "identity";
  profile.h264Encoder = "vpuenc_h264";
  profile.h265Encoder = "vpuenc_hevc";
  profile.jpegEncoder = hasElement("jpegenc") ? "jpegenc" : "";
  profile.hasH264 = hasH264 && hasElement("h264parse");
  profile.hasH265 = hasH265 && hasElement("h265parse");
  profile.hasJpeg = !profile.jpegEncoder.empty();
  return true;
}

Profile probePlatform() {
  Profile profile;
  if (!probeNvidia(profile)) {
    probeImxVpu(profile);
  }
  return profile;
}

// Codec vocabulary

struct CodecName {
  const char* text;
  Codec codec;
};

// A codec's first row holds its canonical name.
constexpr CodecName kCodecNames[] = {
    {"h264", Codec::H264},   {"h265", Codec::H265},  {"hevc", Codec::H265}, {"av1", Codec::Av1},
    {"mjpeg", Codec::Mjpeg}, {"jpeg", Codec::Mjpeg}, {"jpg", Codec::Mjpeg},
};

bool isH26x(Codec codec) {
  return codec == Codec::H264 || codec == Codec::H265;
}

// Frame wrapping

// Keeps the host's frame alive while a memory wraps its streaming block.
struct StreamingFrameHolder {
  void* data;
  std::shared_ptr<void> keepAlive;
};

void gst_buffer_keep_alive_free(gpointer holder) {
  delete static_cast<std::shared_ptr<void>*>(holder);
}

void streaming_frame_holder_free(gpointer holder) {
  delete static_cast<StreamingFrameHolder*>(holder);
}

GQuark gst_buffer_keep_alive_quark() {
  static const GQuark kQuark = g_quark_from_static_string("kelvarion.media_backend.keep_alive");
  return kQuark;
}

// Whether the handle describes an NV12 frame that lies wholly inside its dma-buf, with strides that
// video meta can express.
bool isNv12DmaBuf(const lumora::FrameExportHandle& handle) {
  if (!handle.valid || handle.fd < 0 || handle.size == 0 || handle.width == 0 ||
      handle.height == 0 || !handle.isDmaBuf || handle.planeCount != 2 || handle.width % 2 != 0 ||
      handle.height % 2 != 0) {
    return false;
  }
  const lumora::FramePlaneLayout& luma = handle.planes[0];
  const lumora::FramePlaneLayout& chroma = handle.planes[1];
  if (luma.rowBytes < handle.width || luma.rows != handle.height ||
      chroma.rowBytes < handle.width || chroma.rows != handle.height / 2) {
    return false;
  }
  std::size_t lumaEnd = 0;
  std::size_t chromaEnd = 0;
  if (!luma.endOffset(handle.size, lumaEnd) || !chroma.endOffset(handle.size, chromaEnd)) {
    return false;
  }
  constexpr std::uint32_t kMaxStride = std::numeric_limits<gint>::max();
  return chroma.offset >= lumaEnd && luma.stride <= kMaxStride && chroma.stride <= kMaxStride;
}

// dma-buf memory over dup(fd); null if dup() or the allocator fails.
GstMemory* duplicateDmaBuf(int fd, gsize size) {
  g_autoptr(GstAllocator) allocator = gst_dmabuf_allocator_new();
  if (allocator == nullptr) {
    return nullptr;
  }
  UniqueFd duplicate(dup(fd));
  if (duplicate.get() < 0) {
    return nullptr;
  }
  GstMemory* const memory = gst_dmabuf_allocator_alloc(allocator, duplicate.get(), size);
  gst_clear_object(&allocator);  // the memory holds its own reference
  if (memory != nullptr) {
    duplicate.release();
  }
  return memory;
}

void addNv12Meta(GstBuffer* buffer, const lumora::FrameExportHandle& handle) {
  gsize offsets[GST_VIDEO_MAX_PLANES] = {handle.planes[0].offset, handle.planes[1].offset};
  gint strides[GST_VIDEO_MAX_PLANES] = {static_cast<gint>(handle.planes[0].stride),
                                        static_cast<gint>(handle.planes[1].stride)};
  gst_buffer_add_video_meta_full(buffer, GST_VIDEO_FRAME_FLAG_NONE, GST_VIDEO_FORMAT_NV12,
                                 handle.width, handle.height, 2, offsets, strides);
}

GstBuffer* wrapDmaBuf(const lumora::FrameExportHandle& handle, std::shared_ptr<void> keepAlive) {
  if (!isNv12DmaBuf(handle)) {
    return nullptr;
  }
  g_autoptr(GstBuffer) buffer = gst_buffer_new();
  if (buffer == nullptr) {
    return nullptr;
  }
  GstMemory* const memory = duplicateDmaBuf(handle.fd, handle.size);
  if (memory == nullptr) {
    return nullptr;
  }
  gst_buffer_append_memory(buffer, memory);
  addNv12Meta(buffer, handle);

  auto* const holder = new (std::nothrow) std::shared_ptr<void>(std::move(keepAlive));
  if (holder == nullptr) {
    return nullptr;
  }
  gst_mini_object_set_qdata(GST_MINI_OBJECT_CAST(buffer), gst_buffer_keep_alive_quark(), holder,
                            gst_buffer_keep_alive_free);
  return std::exchange(buffer, nullptr);
}

GstBuffer* wrapStreamingMemory(const lumora::FrameExportHandle& handle,
                               std::shared_ptr<void> keepAlive) {
  lumora::StreamingFrameMemory memory{};
  if (!lumora::prepareStreamingFrameMemory(handle, memory)) {
    return nullptr;
  }
  g_autoptr(GstBuffer) buffer = gst_buffer_new();
  if (buffer == nullptr) {
    return nullptr;
  }
  std::unique_ptr<StreamingFrameHolder> holder(
      new (std::nothrow) StreamingFrameHolder{memory.data, std::move(keepAlive)});
  if (holder == nullptr) {
    return nullptr;
  }
  GstMemory* const wrapped =
      gst_memory_new_wrapped(static_cast<GstMemoryFlags>(0), memory.data, memory.size, 0,
                             memory.size, holder.get(), streaming_frame_holder_free);
  if (wrapped == nullptr) {
    return nullptr;
  }
  static_cast<void>(holder.release());
  gst_buffer_append_memory(buffer, wrapped);
  return std::exchange(buffer, nullptr);
}

// Pieces of descriptions that builders share

constexpr std::string_view kNvmmCaps = "video/x-raw(memory:NVMM),format=NV12";
constexpr std::string_view kVpuCaps = "video/x-raw,format=NV12,interlace-mode=progressive";
constexpr std::string_view kByteStreamAu =
    ",stream-format=byte-stream,alignment=au ";  // H.264, H.265
constexpr std::string_view kAv1Caps =
    "video/x-av1,parsed=true,stream-format=obu-stream,alignment=tu ";
constexpr std::string_view kHttpSink = "! appsink name=sink emit-signals=true sync=false";

void writeInputConversion(Description& text, const Profile& profile, const char* colorimetry) {
  switch (profile.platform) {
    case Platform::Nvidia:
      text << "  ! " << profile.inputConverter << " "
           << "  ! " << kNvmmCaps;
      break;
    case Platform::ImxVpu:
      text << "  ! " << kVpuCaps << ",pixel-aspect-ratio=1/1";
      break;
    default:
      return;
  }
  text.optional(",colorimetry=", colorimetry) << " ";
}

// Key frame intervals, rate control and preset of NVIDIA's encoders on the transport path.
void writeNvidiaTransportSettings(Description& text, const EncoderConfig& config) {
  text << "           iframeinterval=" << config.iframeInterval
       << " idrinterval=" << config.idrInterval << " control-rate=" << config.controlRate << " "
       << "           bitrate=" << config.bitrateBps << " "
       << "           preset-level=" << config.presetLevel;
}

void writeVpuSettings(Description& text, const EncoderConfig& config) {
  text << "gop-size=" << config.idrInterval << " bitrate=" << config.bitrateBps / 1000;
}

}  // namespace

const GstVideoBackend& GstVideoBackend::instance() noexcept {
  static const GstVideoBackend backend(probePlatform());
  return backend;
}

GstVideoBackend::GstVideoBackend(Profile profile) : profile_(std::move(profile)) {}

const char* GstVideoBackend::name() const {
  return profile_.name;
}

bool GstVideoBackend::available() const {
  return profile_.platform != Platform::None;
}

bool GstVideoBackend::supports(Codec codec) const {
  switch (codec) {
    case Codec::H264:
      return profile_.hasH264;
    case Codec::H265:
      return profile_.hasH265;
    case Codec::Av1:
      return profile_.hasAv1;
    case Codec::Mjpeg:
      return profile_.hasJpeg;
    default:
      return false;
  }
}

GstVideoBackend::Codec GstVideoBackend::codecFromString(const std::string& text) noexcept {
  // No lower-case copy, since a failed allocation in a noexcept function terminates the process.
  const auto isLowerOf = [](char lower, unsigned char c) { return lower == std::tolower(c); };
  for (const CodecName& row : kCodecNames) {
    const std::string_view name = row.text;
    if (std::equal(name.begin(), name.end(), text.begin(), text.end(), isLowerOf)) {
      return row.codec;
    }
  }
  return Codec::Unknown;
}

const char* GstVideoBackend::codecName(Codec codec) {
  for (const CodecName& row : kCodecNames) {
    if (codec == row.codec) {
      return row.text;
    }
  }
  return "unknown";
}

const char* GstVideoBackend::h26xEncoder(bool h265) const {
  const std::string& encoder = h265 ? profile_.h265Encoder : profile_.h264Encoder;
  return encoder.empty() ? "" : encoder.c_str();
}

const char* GstVideoBackend::h26xParser(bool h265) const {
  return h265 ? "h265parse" : "h264parse";
}

const char* GstVideoBackend::h26xCaps(bool h265) const {
  return h265 ? "video/x-h265" : "video/x-h264";
}

const char* GstVideoBackend::h26xPayloader(bool h265) const {
  return h265 ? "rtph265pay" : "rtph264pay";
}

GstCaps* GstVideoBackend::makeInputCaps(int width, int height, int fps, bool squarePixels,
                                        const char* colorimetry) const noexcept {
  const bool onNvidia = profile_.platform == Platform::Nvidia;
  if ((!onNvidia && profile_.platform != Platform::ImxVpu) || width <= 0 || height <= 0) {
    return nullptr;
  }
  const bool hasColorimetry = colorimetry != nullptr && *colorimetry != '\0';
  g_autoptr(GstCaps) caps = gst_caps_new_simple(
      "video/x-raw", "format", G_TYPE_STRING, "NV12", "width", G_TYPE_INT, width, "height",
      G_TYPE_INT, height, "framerate", GST_TYPE_FRACTION, std::max(fps, 0), 1, "interlace-mode",
      G_TYPE_STRING, "progressive", "colorimetry", G_TYPE_STRING,
      hasColorimetry ? colorimetry : "bt709", nullptr);
  if (caps == nullptr) {
    return nullptr;
  }
  if (onNvidia) {
    gst_caps_set_features(caps, 0, gst_caps_features_new("memory:NVMM", nullptr));
  }
  if (squarePixels) {
    gst_caps_set_simple(caps, "pixel-aspect-ratio", GST_TYPE_FRACTION, 1, 1, nullptr);
  }
  return std::exchange(caps, nullptr);
}

bool GstVideoBackend::setInputCaps(GstAppSrc* appsrc, int width, int height, int fps,
                                   bool squarePixels, const char* colorimetry) const noexcept {
  if (appsrc == nullptr) {
    return false;
  }
  g_autoptr(GstCaps) caps = makeInputCaps(width, height, fps, squarePixels, colorimetry);
  if (caps == nullptr) {
    return false;
  }
  g_object_set(appsrc, "caps", caps, nullptr);
  return true;
}

GstBuffer* GstVideoBackend::wrapFrame(const lumora::FrameExportHandle& handle,
                                      std::shared_ptr<void> keepAlive) const noexcept {
  if (!available()) {
    return nullptr;
  }
  return profile_.platform == Platform::ImxVpu ? wrapDmaBuf(handle, std::move(keepAlive))
                                               : wrapStreamingMemory(handle, std::move(keepAlive));
}

std::string GstVideoBackend::inputConversionChain(const char* colorimetry) const {
  Description text(128);
  writeInputConversion(text, profile_, colorimetry);
  return text.take();
}

std::string GstVideoBackend::transportEncoderChain(const EncoderConfig& config,
                                                   const char* configInterval) const {
  if (!supports(config.codec)) {
    return {};
  }
  Description text(320);
  if (isH26x(config.codec)) {
    const bool h265 = config.codec == Codec::H265;
    text << "  ! " << h26xEncoder(h265);
    if (profile_.platform == Platform::ImxVpu) {
      text << " name=encoder ";
      writeVpuSettings(text, config);
    } else {
      text << " name=encoder maxperf-enable=1 ";
      writeNvidiaTransportSettings(text, config);
    }
    text << " "
         << "  ! " << h26xParser(h265);
    text.optional(" config-interval=", configInterval) << " ";
  } else if (config.codec == Codec::Av1) {
    text << "  ! nvv4l2av1enc name=encoder maxperf-enable=1 ";
    writeNvidiaTransportSettings(text, config);
    text << " "
         << "  ! av1parse name=parser "
         << "  ! " << kAv1Caps;
  }
  return text.take();
}

std::string GstVideoBackend::rtspPayloaderChain(Codec codec, unsigned int mtu) const {
  Description text(128);
  if (isH26x(codec)) {
    const bool h265 = codec == Codec::H265;
    text << "  ! " << h26xCaps(h265) << kByteStreamAu;
    text << "  ! " << h26xPayloader(h265) << " name=pay0 pt=96 mtu=" << mtu
         << " config-interval=1 ";
  } else if (codec == Codec::Av1) {
    text << "  ! rtpav1pay name=pay0 pt=96 mtu=" << mtu << " clock-rate=90000 ";
  }
  return text.take();
}

std::string GstVideoBackend::httpUploadChain(const char* colorimetry) const {
  Description text(128);
  switch (profile_.platform) {
    case Platform::Nvidia:
      text << "! " << profile_.uploadConverter << " nvbuf-memory-type=0 "
           << "! " << kNvmmCaps;
      break;
    case Platform::ImxVpu:
      if (profile_.uploadConverter != "identity") {
        text << "! " << profile_.uploadConverter << " ";
      }
      text << "! " << kVpuCaps;
      break;
    default:
      return {};
  }
  text.optional(",colorimetry=", colorimetry) << " ";
  return text.take();
}

std::string GstVideoBackend::httpEncoderChain(const EncoderConfig& config) const {
  if (!supports(config.codec)) {
    return {};
  }
  Description text(256);
  if (config.codec == Codec::Mjpeg) {
    text << "! " << profile_.jpegEncoder << " name=encoder quality=80 ";
  } else if (config.codec == Codec::Av1) {
    text << "! nvv4l2av1enc name=encoder maxperf-enable=1 bitrate=" << config.bitrateBps
         << " iframeinterval=30 "
         << "! av1parse "
         << "! " << kAv1Caps;
  } else {
    const bool h265 = config.codec == Codec::H265;
    text << "! " << h26xEncoder(h265) << " name=encoder ";
    if (profile_.platform == Platform::ImxVpu) {
      text << "! " << h26xParser(h265) << " "
           << "! " << h26xCaps(h265) << kByteStreamAu;
    } else {
      text << "bitrate=" << config.bitrateBps
           << " insert-sps-pps=true maxperf-enable=1 iframeinterval=30 "
           << "! " << h26xCaps(h265) << ",stream-format=byte-stream ";
    }
  }
  text << kHttpSink;
  return text.take();
}

std::string GstVideoBackend::recorderPipeline(const EncoderConfig& config,
                                              unsigned int segmentSeconds, bool withKlv,
                                              bool withAudio) const {
  if (!supports(config.codec) || !isH26x(config.codec)) {
    return {};
  }
  const bool h265 = config.codec == Codec::H265;
  Description text(1024);

  text << "appsrc name=mysrc is-live=true block=false format=time do-timestamp=false "
          "    ! queue max-size-buffers=1 leaky=downstream ";
  writeInputConversion(text, profile_, nullptr);

  text << "    ! " << h26xEncoder(h265);
  if (profile_.platform == Platform::ImxVpu) {
    text << " name=enc ";
    writeVpuSettings(text, config);
    text << " ";
  } else {
    text << " name=enc maxperf-enable=1 output-io-mode=5"
         << "        insert-sps-pps=true iframeinterval=" << config.iframeInterval
         << " idrinterval=" << config.idrInterval << " control-rate=" << config.controlRate << " "
         << "        bitrate=" << config.bitrateBps << " preset-level=" << config.presetLevel
         << " ";
  }
  text << "    ! " << h26xParser(h265) << " name=vparse config-interval=1 "
       << "    ! " << h26xCaps(h265) << ",alignment=au "
       << "    ! queue ! sink.video ";

  if (withKlv) {
    text << "appsrc name=klvsrc is-live=true block=false format=time do-timestamp=false "
            "max-buffers=8 "
            "       caps=\"meta/x-klv,parsed=true\" "
            "    ! queue max-size-buffers=8 leaky=downstream ! sink.subtitle_0 ";
  }
  if (withAudio) {
    text << "appsrc name=audiosrc is-live=true block=false format=time do-timestamp=false "
            "max-buffers=64 "
            "       caps=\"audio/x-opus,channel-mapping-family=(int)0,channels=(int)1,"
            "rate=(int)48000\" "
            "       ! opusparse ! queue max-size-buffers=64 leaky=downstream ! sink.audio_0 ";
  }
  text << "splitmuxsink name=sink muxer-factory=mpegtsmux "
          "             max-size-time="
       << std::uint64_t{segmentSeconds} * 1000000000U;
  return text.take();
}

}  // namespace media_backend
