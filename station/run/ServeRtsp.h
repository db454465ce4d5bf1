#pragma once

#include "run/ServeCommand.h"

namespace station {

// The command "serve rtsp".
class ServeRtsp : public ServeCommand {
 public:
  ServeRtsp()
      : ServeCommand("rtsp", "Serve RTSP", &EngineOptions::rtsp, /*port=*/8554,
                     {Codec::H264, Codec::H265, Codec::Av1}) {}
  CLI::App& addOptions(CLI::App& program) override;
};

}  // namespace station
