#include "cli/CommandLine.h"

#include <cstdio>
#include <exception>
#include <string>

#include <gst/gst.h>
#include <CLI/CLI.hpp>

#include "base/StationError.h"

namespace station {
namespace {

constexpr struct {
  ExitCode code;
  const char* meaning;
} kExitCodes[] = {
    {ExitCode::Ok, "done"},
    {ExitCode::Internal, "internal error"},
    {ExitCode::Usage, "wrong arguments"},
    {ExitCode::NoPlatform, "no hardware video platform"},
    {ExitCode::CodecNotUsable, "codec not usable on this board"},
    {ExitCode::Source, "source missing or unreadable"},
    {ExitCode::Output, "output not writable"},
    {ExitCode::DiskFull, "disk full"},
    {ExitCode::Pipeline, "pipeline error"},
    {ExitCode::Interrupted, "ended by a second Ctrl-C"},
};

std::string exitCodesText() {
  std::string text = "Exit codes:";
  for (const auto& [code, meaning] : kExitCodes) {
    text += "\n  " + std::to_string(static_cast<int>(code)) + "  " + meaning;
  }
  return text;
}

ExitCode run(int argc, char** argv, const std::vector<Command*>& commands) {
  CLI::App program("Example host of media_backend: video from a camera board.", "media-station");
  program.require_subcommand(1);
  program.footer(exitCodesText());
  Command* chosen = nullptr;
  for (Command* const command : commands) {
    command->addOptions(program).callback([&chosen, command] { chosen = command; });
  }
  try {
    program.parse(argc, argv);
  } catch (const CLI::ParseError& error) {
    return program.exit(error) == 0 ? ExitCode::Ok : ExitCode::Usage;
  }
  gst_init(nullptr, nullptr);
  chosen->run();
  return ExitCode::Ok;
}

ExitCode report(ExitCode code, const char* prefix, const std::exception& error) {
  std::fprintf(stderr, "media-station: %s%s\n", prefix, error.what());
  return code;
}

}  // namespace

int runCommandLine(int argc, char** argv, const std::vector<Command*>& commands) {
  ExitCode code = ExitCode::Ok;
  try {
    code = run(argc, argv, commands);
  } catch (const StationError& error) {
    code = report(error.code(), "", error);
  } catch (const std::exception& error) {
    code = report(ExitCode::Internal, "internal error: ", error);
  }
  return static_cast<int>(code);
}

}  // namespace station
