#pragma once

#include <memory>

#include "base/Command.h"
#include "run/Engine.h"

namespace station {

// The command "record": frames of a camera, paced at the frame rate, into MPEG-TS segments, until
// the duration is over, the source has ended, or Ctrl-C.
class RecordCommand : public Command {
 public:
  CLI::App& addOptions(CLI::App& program) override;
  void run() override { runEngine(options_); }

 private:
  const std::shared_ptr<EngineOptions> options_ = std::make_shared<EngineOptions>();
};

}  // namespace station
