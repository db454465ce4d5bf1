#include "cli/CommandLine.h"

#include <algorithm>
#include <cstdio>
#include <exception>
#include <numeric>
#include <string>
#include <vector>

#include <gst/gst.h>
#include <CLI/CLI.hpp>

#include "base/Callback.h"
#include "base/StationError.h"
#include "base/StopSignal.h"

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
    {ExitCode::Incomplete, "recorded, but frames or packets are missing"},
    {ExitCode::Address, "address or port not available"},
    {ExitCode::Interrupted, "ended by a second Ctrl-C"},
};

std::string exitCodesText() {
  std::string text = "Exit codes:";
  for (const auto& [code, meaning] : kExitCodes) {
    text += "\n  " + std::to_string(static_cast<int>(code)) + "  " + meaning;
  }
  return text;
}

// Single characters to insert, delete or replace.
std::size_t editDistance(const std::string& from, const std::string& to) {
  std::vector<std::size_t> row(to.size() + 1);
  std::iota(row.begin(), row.end(), std::size_t{0});
  for (const char letter : from) {
    std::size_t diagonal = row[0]++;
    for (std::size_t i = 0; i < to.size(); ++i) {
      const std::size_t replaced = diagonal + (letter == to[i] ? 0 : 1);
      diagonal = row[i + 1];
      row[i + 1] = std::min({replaced, row[i] + 1, diagonal + 1});
    }
  }
  return row.back();
}

// ", did you mean NAME?", or nothing if no name is similar.
std::string suggestion(const std::string& word, const std::vector<std::string>& names) {
  std::size_t least = std::min<std::size_t>(3, word.size() / 2 + 1);
  std::string text;
  for (const std::string& name : names) {
    const std::size_t distance = editDistance(word, name);
    if (distance < least) {
      least = distance;
      text = ", did you mean " + name + "?";
    }
  }
  return text;
}

std::vector<std::string> commandNames(const CLI::App& app) {
  std::vector<std::string> names;
  for (const CLI::App* const command : app.get_subcommands(nullptr)) {
    names.push_back(command->get_name());
  }
  return names;
}

std::vector<std::string> optionNames(const CLI::App& app) {
  std::vector<std::string> names;
  for (const CLI::Option* const option : app.get_options()) {
    names.push_back(option->get_name());
  }
  return names;
}

// What is wrong with the words that `app` does not know; empty if it knows all.
std::string explainUnknown(const CLI::App& app, const std::vector<std::string>& words) {
  if (words.empty()) {
    return "";
  }
  const auto option = std::find_if(words.begin(), words.end(),
                                   [](const std::string& word) { return word.rfind('-', 0) == 0; });
  if (option != words.end()) {
    return "unknown option " + *option + suggestion(*option, optionNames(app));
  }
  const std::vector<std::string> commands = commandNames(app);
  return commands.empty()
             ? "unexpected argument " + words.front()
             : "unknown command " + words.front() + suggestion(words.front(), commands);
}

std::string explain(const CLI::App* program, const CLI::Error& error) {
  const CLI::App* app = program;
  std::string command = program->get_name();
  while (!app->get_subcommands().empty()) {
    app = app->get_subcommands().front();
    command += " " + app->get_name();
  }
  std::string reason = error.what();
  const auto kind = static_cast<CLI::ExitCodes>(error.get_exit_code());
  if (kind == CLI::ExitCodes::RequiredError || kind == CLI::ExitCodes::ExtrasError) {
    const std::string unknown = explainUnknown(*app, program->remaining(/*recurse=*/true));
    reason = unknown.empty() ? reason : unknown;
  }
  if (kind == CLI::ExitCodes::ConfigError) {
    reason = "the configuration has an unknown option: " + reason.substr(reason.rfind('.') + 1);
  }
  return "media-station: " + reason + "\nRun " + command + " --help for more information.\n";
}

ExitCode run(int argc, char** argv, const std::vector<Command*>& commands) {
  CLI::App program("Example host of media_backend: video from a camera board.", "media-station");
  program.require_subcommand(1);
  program.footer(exitCodesText());
  program.set_version_flag("--version", "media-station " MEDIA_BACKEND_VERSION);
  program.failure_message(explain);
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
  ignoreWriteSignals();
  try {
    code = run(argc, argv, commands);
    throwKeptException();
  } catch (const StationError& error) {
    code = report(error.code(), "", error);
  } catch (const std::exception& error) {
    code = report(ExitCode::Internal, "internal error: ", error);
  }
  return static_cast<int>(code);
}

}  // namespace station
