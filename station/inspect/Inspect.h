#pragma once

#include <string>

#include "base/Command.h"
#include "base/EncoderOptions.h"
#include "base/Pipelines.h"

namespace station {

// The command "inspect": prints the profile, the usable codecs, the descriptions that the library
// writes for an encoder configuration, and the elements that were looked for. Throws StationError
// (NoPlatform) after printing if there is no platform.
class Inspect : public Command {
 public:
  CLI::App& addOptions(CLI::App& program) override;
  void run() override;

 private:
  std::string board_;
  DescriptionSettings settings_;
  EncoderOptions encoder_;
  bool json_ = false;
  std::string graph_;  // SVG file for a drawing of the recorder's pipeline; empty for none
};

}  // namespace station
