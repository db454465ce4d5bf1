#pragma once

#include "serve/ServeCommand.h"

namespace station {

// The command "serve rtsp".
class ServeRtsp : public ServeCommand {
 public:
  ServeRtsp()
      : ServeCommand("rtsp", "Serve RTSP", /*port=*/8554, {Codec::H264, Codec::H265, Codec::Av1}) {}
  CLI::App& addOptions(CLI::App& program) override;

 private:
  using Codec = media_backend::GstVideoBackend::Codec;

  void serve(const media_backend::GstVideoBackend& backend, LiveCamera& camera, LiveAudio* audio,
             MainLoop& loop) override;
};

}  // namespace station
