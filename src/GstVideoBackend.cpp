#include <media_backend/GstVideoBackend.h>

#include <algorithm>
#include <cctype>
#include <string_view>
#include <utility>

#include "Description.h"
#include "Platforms.h"

namespace media_backend {
namespace {

using Codec = GstVideoBackend::Codec;

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

constexpr std::string_view kAv1Caps =
    "video/x-av1,parsed=true,stream-format=obu-stream,alignment=tu ";
constexpr std::string_view kHttpSink = "! appsink name=sink emit-signals=true sync=false";

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
  const PlatformTraits* const traits = traitsOf(profile_.platform);
  if (traits == nullptr || width <= 0 || height <= 0) {
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
  if (traits->memory != nullptr) {
    gst_caps_set_features(caps, 0, gst_caps_features_new(traits->memory, nullptr));
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
  const PlatformTraits* const traits = traitsOf(profile_.platform);
  return traits != nullptr ? traits->wrap(handle, std::move(keepAlive)) : nullptr;
}

std::string GstVideoBackend::inputConversionChain(const char* colorimetry) const {
  const PlatformTraits* const traits = traitsOf(profile_.platform);
  if (traits == nullptr) {
    return {};
  }
  Description text(128);
  traits->writeInput(text, profile_);
  text.optional(",colorimetry=", colorimetry) << " ";
  return text.take();
}

std::string GstVideoBackend::transportEncoderChain(const EncoderConfig& config,
                                                   const char* configInterval) const {
  const PlatformTraits* const traits = traitsOf(profile_.platform);
  if (traits == nullptr || !supports(config.codec)) {
    return {};
  }
  Description text(320);
  if (isH26x(config.codec)) {
    const bool h265 = config.codec == Codec::H265;
    text << "  ! " << h26xEncoder(h265) << " name=encoder ";
    traits->writeTransport(text, config);
    text << " "
         << "  ! " << h26xParser(h265);
    text.optional(" config-interval=", configInterval) << " ";
  } else if (config.codec == Codec::Av1) {
    text << "  ! nvv4l2av1enc name=encoder ";  // of this vendor, whatever the platform
    traitsOf(Platform::Nvidia)->writeTransport(text, config);
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
  const PlatformTraits* const traits = traitsOf(profile_.platform);
  if (traits == nullptr) {
    return {};
  }
  Description text(128);
  traits->writeUpload(text, profile_);
  text.optional(",colorimetry=", colorimetry) << " ";
  return text.take();
}

std::string GstVideoBackend::httpEncoderChain(const EncoderConfig& config) const {
  const PlatformTraits* const traits = traitsOf(profile_.platform);
  if (traits == nullptr || !supports(config.codec)) {
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
    traits->writeHttp(text, config, h26xParser(h265), h26xCaps(h265));
  }
  text << kHttpSink;
  return text.take();
}

std::string GstVideoBackend::recorderPipeline(const EncoderConfig& config,
                                              unsigned int segmentSeconds, bool withKlv,
                                              bool withAudio) const {
  const PlatformTraits* const traits = traitsOf(profile_.platform);
  if (traits == nullptr || !supports(config.codec) || !isH26x(config.codec)) {
    return {};
  }
  const bool h265 = config.codec == Codec::H265;
  Description text(1024);

  text << "appsrc name=mysrc is-live=true block=false format=time do-timestamp=false "
          "    ! queue max-size-buffers=1 leaky=downstream ";
  traits->writeInput(text, profile_);
  text << " ";

  text << "    ! " << h26xEncoder(h265) << " name=enc ";
  traits->writeRecorder(text, config);
  text << " ";
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
