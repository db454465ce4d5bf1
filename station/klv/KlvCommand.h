#pragma once

#include <string>

#include "base/Command.h"

namespace station {

// The command "klv": prints the metadata sets of a recording or a stream, one JSON object a line,
// until its end. Throws StationError (Source) after printing if a set is damaged or there is none.
class KlvCommand : public Command {
 public:
  CLI::App& addOptions(CLI::App& program) override;
  void run() override;

 private:
  std::string source_;
};

}  // namespace station
