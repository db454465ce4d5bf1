#include "serve/ServeCommand.h"

#include <cstdio>
#include <vector>

#include <CLI/CLI.hpp>

#include "base/Board.h"
#include "base/Options.h"
#include "camera/CallSource.h"
#include "camera/LiveCamera.h"

namespace station {

using media_backend::GstVideoBackend;

CLI::App& ServeCommand::addOptions(CLI::App& program) {
  const std::vector<CLI::App*> groups = program.get_subcommands(
      [](CLI::App* subcommand) { return subcommand->get_name() == "serve"; });
  CLI::App* const group =
      groups.empty() ? program.add_subcommand(
                           "serve", "Show a camera, or a file played as one, live on the network")
                     : groups.front();
  group->require_subcommand(1);
  CLI::App& command = *group->add_subcommand(name_, help_);
  addBoardOption(command, board_);
  options_.addTo(command, codecs_);
  return command;
}

void ServeCommand::run() {
  const GstVideoBackend& backend = openUsableBoard(board_);
  MainLoop loop;
  LiveCamera camera(
      callSource(options_.camera.source, [&] { return Camera::openFor(backend, options_.camera); }),
      [&loop] { loop.cameraChanged(); }, annotator());
  std::optional<LiveAudio> audio;
  if (options_.audio.isWanted()) {
    audio.emplace(options_.audio);
  }
  serve(backend, camera, audio ? &*audio : nullptr, loop);
}

// Called once: a source of metadata may be a socket.
LiveCamera::Annotate ServeCommand::annotator() const {
  if (!options_.klv) {
    return [](lumora::LumoraPicture& /*picture*/) { return Bytes(); };
  }
  const std::shared_ptr<MetadataSource> source = options_.metadata.open();
  std::optional<MetadataSource::Time> first;
  return [source, encoder = MisbSt0601(options_.metadata.labels),
          first](lumora::LumoraPicture& picture) mutable {
    const MetadataSource::Time now = std::chrono::system_clock::now();
    first = first.value_or(now);
    if (source != nullptr) {
      source->annotate(picture, now);
    }
    writeTimes(picture, now, now - *first);
    return encoder.encode(picture);
  };
}

void ServeCommand::announce(const Listener& listener, const std::string& path,
                            const GstVideoBackend& backend, const FrameFormat& frames) const {
  std::printf("serving %s%s://%s%s  %s %u x %u, %.4g frames per second, %s\n", name_,
              options_.certificate != nullptr ? "s" : "", listener.authority().c_str(),
              path.c_str(), GstVideoBackend::codecName(options_.encoder.codec), frames.width,
              frames.height, frames.rate.perSecond(), backend.name());
  std::fflush(stdout);
  if (!options_.quiet) {
    std::fprintf(stderr, "%s\n", frames.feed.c_str());
  }
  if (!listener.isLoopback() && !options_.credentials) {
    std::fprintf(stderr,
                 "note: whoever reaches this address can watch; --auth asks for a password\n");
  }
}

}  // namespace station
