#include "rtsp/ServeRtsp.h"

#include <CLI/CLI.hpp>

#include "rtsp/Server.h"

namespace station {

CLI::App& ServeRtsp::addOptions(CLI::App& program) {
  CLI::App& command = ServeCommand::addOptions(program);
  command.add_option("--path", options_.path, "Path of the stream")
      ->check([](const std::string& path) {
        return path.rfind('/', 0) == 0 ? "" : "the path has to begin with /";
      })
      ->capture_default_str();
  command.add_option("--mtu", options_.mtu, "Most bytes of an RTP packet")
      ->check(CLI::Range(64U, 65535U))
      ->capture_default_str();
  CLI::Option* const klv =
      command.add_flag("--klv", options_.klv, "Serve a KLV track (MISB ST 0601)");
  options_.metadata.addTo(command);
  command.get_option("--telemetry")->needs(klv);
  return command;
}

void ServeRtsp::serve(const media_backend::GstVideoBackend& backend, LiveCamera& camera,
                      LiveAudio* audio, MainLoop& loop) {
  options_.encoderOptions.refuseUnused(backend, Use::Rtsp, {options_.encoder});
  RtspServer server(backend, camera, audio, options_);
  announce(server.listener(), options_.path, backend, camera.format());
  loop.run(camera, options_.quiet);
}

}  // namespace station
