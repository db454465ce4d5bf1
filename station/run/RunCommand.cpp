#include "run/RunCommand.h"

#include <cstdio>
#include <memory>
#include <sstream>
#include <string>
#include <vector>

#include <CLI/CLI.hpp>

#include "base/Options.h"
#include "base/StationError.h"

namespace station {
namespace {

using Codec = media_backend::GstVideoBackend::Codec;

// Reads a file of the command's options, without a section.
class RunConfig : public CLI::ConfigTOML {
 public:
  std::vector<CLI::ConfigItem> from_config(std::istream& file) const override {
    std::vector<CLI::ConfigItem> options = CLI::ConfigTOML::from_config(file);
    for (CLI::ConfigItem& option : options) {
      option.parents.insert(option.parents.begin(), "run");
    }
    return options;
  }
};

// The options that were given, and the others as comments.
std::string configOf(const CLI::App& command) {
  const std::string given = "\n" + command.config_to_str(false, false);
  std::istringstream all(command.config_to_str(/*default_also=*/true, /*write_description=*/true));
  std::string text;
  for (std::string line; std::getline(all, line);) {
    const bool isOption = !line.empty() && line.front() != '#';
    text += isOption && given.find("\n" + line + "\n") == std::string::npos ? "#" : "";
    text += line + "\n";
  }
  return text;
}

constexpr std::uint16_t kRtspPort = 8554;
constexpr std::uint16_t kHttpPort = 8080;

}  // namespace

CLI::App& RunCommand::addOptions(CLI::App& program) {
  CLI::App& command = *program.add_subcommand(
      "run", "Record a camera and serve it by RTSP and HTTP, any of them together");
  addBoardOption(command, options_.board);
  options_.encoder.addTo(command, encoder_, {Codec::H264, Codec::H265});
  options_.camera.addTo(command);
  options_.audio.addTo(command);
  options_.camera.addLiveTo(command);
  command.add_option("--record", record_.folder, "Record into segments in FOLDER")
      ->type_name("FOLDER");
  record_.addTo(command);
  options_.metadata.addTo(command);
  command.get_option("--telemetry")->needs(command.get_option("--klv"));
  command.add_flag("--rtsp", hasRtsp_, "Serve RTSP");
  rtsp_.port = kRtspPort;
  rtsp_.addPortTo(command, "rtsp-");
  rtsp_.addRtspTo(command, "rtsp-");
  command.add_flag("--http", hasHttp_, "Serve a page, streams and snapshots over HTTP");
  http_.port = kHttpPort;
  http_.addPortTo(command, "http-");
  http_.addHttpTo(command);
  server_.addTo(command);
  command
      .add_flag_callback(
          "--print-config",
          [&command] {
            std::fputs(configOf(command).c_str(), stdout);
            throw CLI::Success();
          },
          "Print a file for --config with these options, and all others, and do nothing else")
      ->configurable(false);
  // CLI11 reads files for the program only.
  program.set_config("--config", "", "For the command run: read options from FILE")
      ->type_name("FILE");
  program.config_formatter(std::make_shared<RunConfig>());
  program.allow_config_extras(CLI::config_extras_mode::error);
  command.fallthrough();
  return command;
}

void RunCommand::run() {
  if (!record_.folder.empty()) {
    options_.record = record_;
    options_.record->recorder.encoder = encoder_;
  }
  const auto complete = [this](const ServeOptions& own) {
    ServeOptions all = server_;
    all.encoder = encoder_;
    all.port = own.port;
    all.path = own.path;
    all.mtu = own.mtu;
    all.klv = record_.recorder.klv;
    all.hosts = own.hosts;
    return all;
  };
  if (hasRtsp_) {
    options_.rtsp = complete(rtsp_);
  }
  if (hasHttp_) {
    options_.http = complete(http_);
  }
  if (!options_.record && !options_.rtsp && !options_.http) {
    throw StationError(ExitCode::Usage, "nothing to do: give --record FOLDER, --rtsp or --http");
  }
  runEngine(options_);
}

}  // namespace station
