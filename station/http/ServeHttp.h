#pragma once

#include "serve/ServeCommand.h"

namespace station {

// The command "serve http".
class ServeHttp : public ServeCommand {
 public:
  ServeHttp()
      : ServeCommand("http", "Serve a page, streams and snapshots over HTTP", /*port=*/8080,
                     allCodecs()) {}
  CLI::App& addOptions(CLI::App& program) override;

 private:
  void serve(const media_backend::GstVideoBackend& backend, LiveCamera& camera, LiveAudio* audio,
             MainLoop& loop) override;
  void noteUnusedBitRate(const media_backend::GstVideoBackend& backend) const;
};

}  // namespace station
