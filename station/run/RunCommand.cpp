#include "run/RunCommand.h"

#include <cstdio>
#include <filesystem>
#include <set>
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

// Groups of options, by what depends on them.
constexpr const char* kBoard = "Board";
constexpr const char* kEncoder = "Encoder";
constexpr const char* kCamera = "Camera, audio and metadata";
constexpr const char* kRecording = "Recording";
constexpr const char* kRtsp = "RTSP";
constexpr const char* kHttp = "HTTP";
constexpr const char* kServers = "RTSP and HTTP";
constexpr const char* kProgram = "Other";

// Modification times of the files that a value of --auth or --tls names.
std::string timesOf(const std::string& value) {
  std::istringstream parts(value);
  std::string text;
  for (std::string path; std::getline(parts, path, ':');) {
    std::error_code error;
    const auto time = std::filesystem::last_write_time(path, error).time_since_epoch();
    text += error ? "" : " " + std::to_string(time.count());
  }
  return text;
}

// The options of these groups that were given, a line each.
std::string textOf(const CLI::App& command, const std::set<std::string>& groups) {
  std::string text;
  for (const CLI::Option* const option : command.get_options()) {
    if (groups.count(option->get_group()) == 0) {
      continue;
    }
    for (const std::string& value : option->results()) {
      const bool isFile = option->check_name("--auth") || option->check_name("--tls");
      text += option->get_name() + "=" + value + (isFile ? timesOf(value) : "") + "\n";
    }
  }
  return text;
}

constexpr std::uint16_t kRtspPort = 8554;
constexpr std::uint16_t kHttpPort = 8080;

}  // namespace

CLI::App& RunCommand::addOptions(CLI::App& program) {
  CLI::App& command = *program.add_subcommand(
      "run", "Record a camera and serve it by RTSP and HTTP, any of them together");
  command_ = &command;
  const auto beginGroup = [&command](const char* name) { command.option_defaults()->group(name); };
  beginGroup(kBoard);
  addBoardOption(command, options_->board);
  beginGroup(kEncoder);
  options_->encoder.addTo(command, encoder_, {Codec::H264, Codec::H265});
  beginGroup(kCamera);
  options_->camera.addTo(command);
  options_->camera.addLiveTo(command);
  options_->audio.addTo(command);
  options_->metadata.addTo(command);
  beginGroup(kRecording);
  command.add_option("--record", record_.folder, "Record into segments in FOLDER")
      ->type_name("FOLDER");
  record_.addTo(command);
  command.get_option("--klv")->group(kCamera);
  command.get_option("--telemetry")->needs(command.get_option("--klv"));
  addServers(command, beginGroup);
  beginGroup(kProgram);
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
  config_ = program.set_config("--config", "", "For the command run: read options from FILE");
  program.get_config_ptr()->type_name("FILE");
  program.config_formatter(std::make_shared<RunConfig>());
  program.allow_config_extras(CLI::config_extras_mode::error);
  command.fallthrough();
  return command;
}

void RunCommand::addServers(CLI::App& command, const std::function<void(const char*)>& beginGroup) {
  beginGroup(kRtsp);
  command.add_flag("--rtsp", hasRtsp_, "Serve RTSP");
  rtsp_.port = kRtspPort;
  rtsp_.addPortTo(command, "rtsp-");
  rtsp_.addRtspTo(command, "rtsp-");
  beginGroup(kHttp);
  command.add_flag("--http", hasHttp_, "Serve a page, streams and snapshots over HTTP");
  http_.port = kHttpPort;
  http_.addPortTo(command, "http-");
  http_.addHttpTo(command);
  beginGroup(kServers);
  server_.addTo(command);
}

void RunCommand::run() {
  completeOptions();
  runEngine(options_, config_->count() != 0 ? [this] { return readAgain(); } : ReadOptions());
}

std::shared_ptr<const EngineOptions> RunCommand::readAgain() const {
  struct Reading {
    Reading(int argc, char** argv) : command(argc, argv) {}
    CLI::App program;
    RunCommand command;
  };
  const auto reading = std::make_shared<Reading>(argc_, argv_);
  reading->command.addOptions(reading->program);
  try {
    reading->program.parse(argc_, argv_);
  } catch (const CLI::ParseError& error) {
    throw StationError(ExitCode::Usage, error.what());
  }
  reading->command.completeOptions();
  return {reading, reading->command.options_.get()};
}

void RunCommand::completeOptions() {
  if (!record_.folder.empty()) {
    options_->record = record_;
    options_->record->recorder.encoder = encoder_;
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
    options_->rtsp = complete(rtsp_);
  }
  if (hasHttp_) {
    options_->http = complete(http_);
  }
  if (!options_->record && !options_->rtsp && !options_->http) {
    throw StationError(ExitCode::Usage, "nothing to do: give --record FOLDER, --rtsp or --http");
  }
  options_->texts = {textOf(*command_, {kBoard}), textOf(*command_, {kCamera}),
                     textOf(*command_, {kRecording, kEncoder}),
                     textOf(*command_, {kRtsp, kServers, kEncoder}),
                     textOf(*command_, {kHttp, kServers, kEncoder})};
}

}  // namespace station
