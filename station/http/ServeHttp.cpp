#include "http/ServeHttp.h"

#include <cstdio>

#include <CLI/CLI.hpp>

#include "http/Server.h"

namespace station {

using media_backend::GstVideoBackend;

CLI::App& ServeHttp::addOptions(CLI::App& program) {
  CLI::App& command = ServeCommand::addOptions(program);
  command
      .add_option("--host", options_.hosts,
                  "Name or address that clients may ask for, beside those of the machine; may be "
                  "repeated")
      ->type_name("NAME")
      ->allow_extra_args(false);
  return command;
}

void ServeHttp::serve(const GstVideoBackend& backend, LiveCamera& camera, LiveAudio* audio,
                      MainLoop& loop) {
  options_.encoderOptions.refuseUnused(backend, Use::Http, {options_.encoder});
  HttpServer server(backend, camera, audio, options_,
                    [&loop](const StationError& error) { loop.fail(error); });
  announce(server.listener(), "/", backend, camera.format());
  noteUnusedBitRate(backend);
  loop.run(camera, options_.quiet);
}

// Over HTTP, some encoders run without any setting: the library leaves them theirs.
void ServeHttp::noteUnusedBitRate(const GstVideoBackend& backend) const {
  if (options_.encoderOptions.isBitRateUnused(backend, Use::Http, {options_.encoder})) {
    std::fprintf(stderr,
                 "note: --bitrate has no effect: over HTTP, this board's encoder of %s keeps its "
                 "own bit rate\n",
                 GstVideoBackend::codecName(options_.encoder.codec));
  }
}

}  // namespace station
