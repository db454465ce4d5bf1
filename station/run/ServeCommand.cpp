#include "run/ServeCommand.h"

#include <utility>
#include <vector>

#include <CLI/CLI.hpp>

namespace station {

ServeCommand::ServeCommand(const char* name, const char* help,
                           std::optional<ServeOptions> EngineOptions::*server, std::uint16_t port,
                           Codecs codecs)
    : name_(name), help_(help), server_(server), codecs_(std::move(codecs)) {
  ((*options_).*server_).emplace().port = port;
}

CLI::App& ServeCommand::addOptions(CLI::App& program) {
  const std::vector<CLI::App*> groups = program.get_subcommands(
      [](CLI::App* subcommand) { return subcommand->get_name() == "serve"; });
  CLI::App* const group =
      groups.empty() ? program.add_subcommand(
                           "serve", "Show a camera, or a file played as one, live on the network")
                     : groups.front();
  group->require_subcommand(1);
  CLI::App& command = *group->add_subcommand(name_, help_);
  addBoardOption(command, options_->board);
  options_->encoder.addTo(command, server().encoder, codecs_);
  options_->camera.addTo(command);
  options_->audio.addTo(command);
  options_->camera.addLiveTo(command);
  server().addPortTo(command, "");
  server().addTo(command);
  return command;
}

void ServeCommand::addKlvTo(CLI::App& command, const char* help) {
  options_->metadata.addTo(command);
  command.get_option("--telemetry")->needs(command.add_flag("--klv", server().klv, help));
}

}  // namespace station
