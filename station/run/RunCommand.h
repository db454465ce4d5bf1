#pragma once

#include <functional>
#include <memory>

#include "base/Command.h"
#include "run/Engine.h"

namespace CLI {  // NOLINT(readability-identifier-naming): the name is CLI11's
class Option;
}

namespace station {

// The command "run": a camera with any outputs together.
class RunCommand : public Command {
 public:
  // `argc`, `argv`: of main(), to read the options again.
  RunCommand(int argc, char** argv) : argc_(argc), argv_(argv) {}

  CLI::App& addOptions(CLI::App& program) override;
  void run() override;

 private:
  void addServers(CLI::App& command, const std::function<void(const char*)>& beginGroup);
  void completeOptions();
  std::shared_ptr<const EngineOptions> readAgain() const;

  const int argc_;
  char** const argv_;
  const CLI::App* command_ = nullptr;
  const CLI::Option* config_ = nullptr;
  const std::shared_ptr<EngineOptions> options_ =
      std::make_shared<EngineOptions>();  // its outputs: by completeOptions()
  media_backend::GstVideoBackend::EncoderConfig encoder_;
  RecordOptions record_;
  ServeOptions server_;  // what both servers take
  ServeOptions rtsp_;    // port and what only it takes
  ServeOptions http_;
  bool hasRtsp_ = false;
  bool hasHttp_ = false;
};

}  // namespace station
