#pragma once

#include "base/Command.h"
#include "run/Engine.h"

namespace station {

// The command "run": a camera with any outputs together.
class RunCommand : public Command {
 public:
  CLI::App& addOptions(CLI::App& program) override;
  void run() override;

 private:
  EngineOptions options_;  // the outputs after the parser
  media_backend::GstVideoBackend::EncoderConfig encoder_;
  RecordOptions record_;
  ServeOptions server_;  // what both servers take
  ServeOptions rtsp_;    // port and what only it takes
  ServeOptions http_;
  bool hasRtsp_ = false;
  bool hasHttp_ = false;
};

}  // namespace station
