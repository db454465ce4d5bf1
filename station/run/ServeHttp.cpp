#include "run/ServeHttp.h"

namespace station {

CLI::App& ServeHttp::addOptions(CLI::App& program) {
  CLI::App& command = ServeCommand::addOptions(program);
  server().addHttpTo(command);
  return command;
}

}  // namespace station
