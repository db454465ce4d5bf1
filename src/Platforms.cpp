#include "Platforms.h"

#include <algorithm>
#include <iterator>
#include <string_view>

#include <gst/gst.h>

#include "FrameWrapping.h"

namespace media_backend {
namespace {

using EncoderConfig = GstVideoBackend::EncoderConfig;
using Platform = GstVideoBackend::Platform;
using Profile = GstVideoBackend::Profile;

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

constexpr std::string_view kNvmmCaps = "video/x-raw(memory:NVMM),format=NV12";
constexpr std::string_view kVpuCaps = "video/x-raw,format=NV12,interlace-mode=progressive";

void writeNvidiaInput(Description& text, const Profile& profile) {
  text << "  ! " << profile.inputConverter << " "
       << "  ! " << kNvmmCaps;
}

void writeNvidiaUpload(Description& text, const Profile& profile) {
  text << "! " << profile.uploadConverter << " nvbuf-memory-type=0 "
       << "! " << kNvmmCaps;
}

void writeNvidiaTransport(Description& text, const EncoderConfig& config) {
  text << "maxperf-enable=1 "
       << "           iframeinterval=" << config.iframeInterval
       << " idrinterval=" << config.idrInterval << " control-rate=" << config.controlRate << " "
       << "           bitrate=" << config.bitrateBps << " "
       << "           preset-level=" << config.presetLevel;
}

void writeNvidiaHttp(Description& text, const EncoderConfig& config, const char* /*parser*/,
                     const char* caps) {
  text << "bitrate=" << config.bitrateBps
       << " insert-sps-pps=true maxperf-enable=1 iframeinterval=30 "
       << "! " << caps << ",stream-format=byte-stream ";
}

void writeNvidiaRecorder(Description& text, const EncoderConfig& config) {
  text << "maxperf-enable=1 output-io-mode=5"
       << "        insert-sps-pps=true iframeinterval=" << config.iframeInterval
       << " idrinterval=" << config.idrInterval << " control-rate=" << config.controlRate << " "
       << "        bitrate=" << config.bitrateBps << " preset-level=" << config.presetLevel;
}

void writeVpuInput(Description& text, const Profile& /*profile*/) {
  text << "  ! " << kVpuCaps << ",pixel-aspect-ratio=1/1";
}

void writeVpuUpload(Description& text, const Profile& profile) {
  if (profile.uploadConverter != "identity") {
    text << "! " << profile.uploadConverter << " ";
  }
  text << "! " << kVpuCaps;
}

void writeVpuSettings(Description& text, const EncoderConfig& config) {
  text << "gop-size=" << config.idrInterval << " bitrate=" << config.bitrateBps / 1000;
}

void writeVpuHttp(Description& text, const EncoderConfig& /*config*/, const char* parser,
                  const char* caps) {
  text << "! " << parser << " "
       << "! " << caps << kByteStreamAu;
}

// In the order in which they are probed.
constexpr PlatformTraits kPlatforms[] = {
    {Platform::Nvidia, probeNvidia, wrapStreamingMemory, "memory:NVMM", writeNvidiaInput,
     writeNvidiaUpload, writeNvidiaTransport, writeNvidiaHttp, writeNvidiaRecorder},
    {Platform::ImxVpu, probeImxVpu, wrapDmaBuf, nullptr, writeVpuInput, writeVpuUpload,
     writeVpuSettings, writeVpuHttp, writeVpuSettings},
};

}  // namespace

const PlatformTraits* traitsOf(Platform platform) {
  const auto* const row = std::find_if(
      std::begin(kPlatforms), std::end(kPlatforms),
      [platform](const PlatformTraits& traits) { return traits.platform == platform; });
  return row != std::end(kPlatforms) ? row : nullptr;
}

Profile probePlatform() {
  Profile profile;
  for (const PlatformTraits& traits : kPlatforms) {
    if (traits.probe(profile)) {
      break;
    }
  }
  return profile;
}

}  // namespace media_backend
