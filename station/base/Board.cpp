#include "base/Board.h"

#include <simulated_board/SimulatedBoard.h>

#include "base/StationError.h"

namespace station {

using media_backend::GstVideoBackend;

const GstVideoBackend& openBoard(const std::string& simulated) {
  if (!simulated.empty()) {
    std::string error;
    if (!simulated_board::registerElements(nullptr, simulated, error)) {
      throw StationError(ExitCode::Usage, "cannot simulate board \"" + simulated + "\": " + error);
    }
  }
  return GstVideoBackend::instance();
}

std::vector<BoardElement> lookUpElements() {
  std::vector<BoardElement> elements = {
      {"nvidia-nvmm", "converter, one needed", "nvvidconv", false},
      {"nvidia-nvmm", "converter, one needed", "nvvideoconvert", false},
      {"nvidia-nvmm", "H.264 encoder, this or H.265", "nvv4l2h264enc", false},
      {"nvidia-nvmm", "H.265 encoder, this or H.264", "nvv4l2h265enc", false},
      {"nvidia-nvmm", "AV1 encoder", "nvv4l2av1enc", false},
      {"nvidia-nvmm", "AV1 parser", "av1parse", false},
      {"nvidia-nvmm", "JPEG encoder", "nvjpegenc", false},
      {"dmabuf-nv12-vpu", "H.264 encoder, this or H.265", "vpuenc_h264", false},
      {"dmabuf-nv12-vpu", "H.264 parser", "h264parse", false},
      {"dmabuf-nv12-vpu", "H.265 encoder, this or H.264", "vpuenc_hevc", false},
      {"dmabuf-nv12-vpu", "H.265 parser", "h265parse", false},
      {"dmabuf-nv12-vpu", "upload converter", "imxvideoconvert_g2d", false},
      {"dmabuf-nv12-vpu", "JPEG encoder", "jpegenc", false},
      {"every platform", "recorder: H.264 parser", "h264parse", false},
      {"every platform", "recorder: H.265 parser", "h265parse", false},
      {"every platform", "recorder: segments", "splitmuxsink", false},
      {"every platform", "recorder: transport stream", "mpegtsmux", false},
      {"every platform", "recorder: sound", "opusparse", false},
  };
  for (BoardElement& element : elements) {
    g_autoptr(GstElementFactory) factory = gst_element_factory_find(element.name);
    element.present = factory != nullptr;
  }
  return elements;
}

const GstVideoBackend& requirePlatform(const GstVideoBackend& backend) {
  if (!backend.available()) {
    throw StationError(ExitCode::NoPlatform,
                       "this machine offers no hardware video platform (media-station inspect "
                       "lists what is missing; --board nvidia or --board imx simulates one)");
  }
  return backend;
}

}  // namespace station
