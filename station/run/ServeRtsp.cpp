#include "run/ServeRtsp.h"

namespace station {

CLI::App& ServeRtsp::addOptions(CLI::App& program) {
  CLI::App& command = ServeCommand::addOptions(program);
  server().addRtspTo(command, "");
  addKlvTo(command, "Serve a KLV track (MISB ST 0601)");
  return command;
}

}  // namespace station
