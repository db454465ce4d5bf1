#pragma once

#include <memory>

#include "base/Command.h"
#include "base/Options.h"
#include "run/Engine.h"

namespace station {

// What the commands "serve rtsp" and "serve http" share: live video of a camera, until Ctrl-C.
class ServeCommand : public Command {
 public:
  CLI::App& addOptions(CLI::App& program) override;
  void run() final { runEngine(options_); }

 protected:
  using Codec = media_backend::GstVideoBackend::Codec;

  // `server`: the one of the options that the command runs.
  ServeCommand(const char* name, const char* help,
               std::optional<ServeOptions> EngineOptions::*server, std::uint16_t port,
               Codecs codecs);

  // --klv, with this help, and the options of what it contains.
  void addKlvTo(CLI::App& command, const char* help);

  ServeOptions& server() { return *((*options_).*server_); }

 private:
  const char* const name_;
  const char* const help_;
  std::optional<ServeOptions> EngineOptions::*const server_;
  const Codecs codecs_;
  const std::shared_ptr<EngineOptions> options_ = std::make_shared<EngineOptions>();
};

}  // namespace station
