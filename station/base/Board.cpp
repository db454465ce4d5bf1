#include "base/Board.h"

#include <simulated_board/SimulatedBoard.h>

#include "base/StationError.h"

namespace station {

using media_backend::GstVideoBackend;
using Codec = GstVideoBackend::Codec;
using Platform = GstVideoBackend::Platform;

bool areAlternatives(const BoardElement& one, const BoardElement& other) {
  return one.need == Need::OneOf && other.need == Need::OneOf && one.platform == other.platform &&
         (one.codec == Codec::Unknown) == (other.codec == Codec::Unknown);
}

const char* platformName(Platform platform) {
  switch (platform) {
    case Platform::Nvidia:
      return "nvidia-nvmm";
    case Platform::ImxVpu:
      return "dmabuf-nv12-vpu";
    default:
      return "every platform";
  }
}

Platform platformOf(const GstVideoBackend& backend) {
  for (const Platform platform : {Platform::Nvidia, Platform::ImxVpu}) {
    if (backend.name() == std::string(platformName(platform))) {
      return platform;
    }
  }
  return Platform::None;
}

const GstVideoBackend& openBoard(const std::string& simulated) {
  if (!simulated.empty()) {
    std::string error;
    if (!simulated_board::registerElements(nullptr, simulated, error)) {
      throw StationError(ExitCode::Usage, "cannot simulate board \"" + simulated + "\": " + error);
    }
  }
  return GstVideoBackend::instance();
}

const GstVideoBackend& openUsableBoard(const std::string& simulated) {
  const GstVideoBackend& backend = openBoard(simulated);
  requirePlatform(backend);
  return backend;
}

std::vector<BoardElement> lookUpElements() {
  constexpr Platform kNvidia = Platform::Nvidia;
  constexpr Platform kImx = Platform::ImxVpu;
  constexpr Platform kEvery = Platform::None;
  std::vector<BoardElement> elements = {
      {kNvidia, Codec::Unknown, Need::OneOf, "converter, one needed", "nvvidconv", false},
      {kNvidia, Codec::Unknown, Need::OneOf, "converter, one needed", "nvvideoconvert", false},
      {kNvidia, Codec::H264, Need::OneOf, "H.264 encoder, this or H.265", "nvv4l2h264enc", false},
      {kNvidia, Codec::H265, Need::OneOf, "H.265 encoder, this or H.264", "nvv4l2h265enc", false},
      {kNvidia, Codec::Av1, Need::Optional, "AV1 encoder", "nvv4l2av1enc", false},
      {kNvidia, Codec::Av1, Need::Optional, "AV1 parser", "av1parse", false},
      {kNvidia, Codec::Mjpeg, Need::Optional, "JPEG encoder", "nvjpegenc", false},
      {kImx, Codec::H264, Need::OneOf, "H.264 encoder, this or H.265", "vpuenc_h264", false},
      {kImx, Codec::H264, Need::Optional, "H.264 parser", "h264parse", false},
      {kImx, Codec::H265, Need::OneOf, "H.265 encoder, this or H.264", "vpuenc_hevc", false},
      {kImx, Codec::H265, Need::Optional, "H.265 parser", "h265parse", false},
      {kImx, Codec::Unknown, Need::Optional, "upload converter", "imxvideoconvert_g2d", false},
      {kImx, Codec::Mjpeg, Need::Optional, "JPEG encoder", "jpegenc", false},
      {kEvery, Codec::H264, Need::Optional, "recorder: H.264 parser", "h264parse", false},
      {kEvery, Codec::H265, Need::Optional, "recorder: H.265 parser", "h265parse", false},
      {kEvery, Codec::Unknown, Need::Always, "recorder: segments", "splitmuxsink", false},
      {kEvery, Codec::Unknown, Need::Always, "recorder: transport stream", "mpegtsmux", false},
      {kEvery, Codec::Unknown, Need::Optional, "recorder: audio", "opusparse", false},
  };
  for (BoardElement& element : elements) {
    g_autoptr(GstElementFactory) factory = gst_element_factory_find(element.name);
    element.present = factory != nullptr;
  }
  return elements;
}

Simulation simulationOf(Platform platform) {
  bool anyReal = false;
  bool anySimulated = false;
  for (const BoardElement& element : lookUpElements()) {
    // Parsers and JPEG encoders of software stand beside the hardware's elements.
    const std::string name = element.name;
    const bool isHardware =
        name.rfind("nv", 0) == 0 || name.rfind("vpu", 0) == 0 || name.rfind("imx", 0) == 0;
    if (element.present && element.platform == platform && isHardware) {
      (simulated_board::isSimulated(element.name) ? anySimulated : anyReal) = true;
    }
  }
  return !anySimulated ? Simulation::None : anyReal ? Simulation::Some : Simulation::All;
}

void requirePlatform(const GstVideoBackend& backend) {
  if (!backend.available()) {
    throw StationError(ExitCode::NoPlatform,
                       "this machine offers no hardware video platform (media-station doctor says "
                       "what to do; --board nvidia or --board imx simulates one)");
  }
}

}  // namespace station
