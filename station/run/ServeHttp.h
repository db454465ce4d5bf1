#pragma once

#include "run/ServeCommand.h"

namespace station {

// The command "serve http".
class ServeHttp : public ServeCommand {
 public:
  ServeHttp()
      : ServeCommand("http", "Serve a page, streams and snapshots over HTTP", &EngineOptions::http,
                     /*port=*/8080, allCodecs()) {}
  CLI::App& addOptions(CLI::App& program) override;
};

}  // namespace station
