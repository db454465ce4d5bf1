#include "doctor/Doctor.h"

#include <algorithm>
#include <cstdio>
#include <optional>
#include <sstream>

#include <CLI/CLI.hpp>

#include "base/Options.h"
#include "base/StationError.h"
#include "doctor/Advice.h"
#include "doctor/Checks.h"
#include "doctor/JsonReport.h"
#include "doctor/Verdict.h"

namespace station {
namespace {

using media_backend::GstVideoBackend;
using Codec = GstVideoBackend::Codec;
using nlohmann::ordered_json;

void printLog(const CheckResult& result) {
  for (const std::string& line : result.log) {
    std::printf("             | %s\n", line.c_str());
  }
}

void printIndented(const std::string& text, const char* indent) {
  std::istringstream lines(text);
  for (std::string line; std::getline(lines, line);) {
    std::printf("%s%s\n", indent, line.c_str());
  }
}

void printCodec(const CodecDiagnosis& codec) {
  std::printf("  %-6s %s\n", codec.name(),
              codec.works()     ? "works"
              : codec.encodes() ? "partly"
                                : "no");
  for (const std::string& problem : codec.problems) {
    std::printf("           %s\n", problem.c_str());
  }
  for (const DescriptionDiagnosis& description : codec.descriptions) {
    if (description.trial && !description.trial->ok) {
      printLog(*description.trial);
    }
  }
}

void printProblems(const Diagnosis& board) {
  for (const CodecDiagnosis& codec : board.codecs) {
    for (const DescriptionDiagnosis& description : codec.descriptions) {
      for (const auto& problem : description.problems()) {
        std::printf("\n%s, %s: %s\n", codec.name(), description.name(),
                    problem["message"].get<std::string>().c_str());
        printIndented(problem["marked"], "  ");
      }
    }
  }
}

void printElement(const ElementDiagnosis& row) {
  const char* const state = !row.element.present ? "missing"
                            : !row.opening       ? "found"
                            : row.opening->ok    ? "opens"
                                                 : "FAILS";
  std::printf("  %-8s %-20s %-30s %s\n", state, row.element.name, row.element.role,
              (row.origin.plugin + " " + row.origin.version + " " + row.origin.package).c_str());
  if (!row.opens()) {
    std::printf("           %s\n", row.opening->error.c_str());
    printLog(*row.opening);
  }
}

void printElements(const Diagnosis& board) {
  std::optional<GstVideoBackend::Platform> platform;
  for (const ElementDiagnosis& row : board.elements) {
    if (platform != row.element.platform) {
      platform = row.element.platform;
      std::printf("\nelements for %s\n", platformName(*platform));
    }
    printElement(row);
  }
}

std::string joined(const ordered_json& texts) {
  std::string line;
  for (const auto& text : texts) {
    line += " " + text.get<std::string>();
  }
  return line;
}

void printDevice(const ordered_json& device) {
  std::printf("  %s", device["node"].get<std::string>().c_str());
  for (const char* const key : {"kind", "driver", "card", "bus"}) {
    const std::string text = device[key];
    std::printf("%s%s", text.empty() ? "" : "  ", text.c_str());
  }
  for (const char* const key : {"takes", "gives"}) {
    if (!device[key].empty()) {
      std::printf("\n    %s%s", key, joined(device[key]).c_str());
    }
  }
  const std::string error = device["error"];
  std::printf("%s%s\n", error.empty() ? "" : "\n    cannot be opened: ", error.c_str());
}

// Where the station's frames would be, and what came of the trial.
void printFrames(const CheckResult& frames, const CheckResult* trial) {
  std::string line = frames.ok ? frames.value["feed"].get<std::string>() : frames.error;
  if (trial != nullptr && !trial->ok) {
    line += "; " + trial->error;
  } else if (trial != nullptr) {
    line += "; " + trial->value["encoded"].dump() + " of " + trial->value["sent"].dump() +
            " came back" +
            (trial->value["compared"].get<bool>() ? " as they were sent" : ", not compared");
  }
  std::printf("  frames   %s\n", line.c_str());
  printLog(frames);
}

void printMachine(const Diagnosis& board) {
  const Machine& machine = board.machine;
  std::printf("\nboard\n");
  std::printf("  model    %s\n", machine.model.empty() ? "unknown" : machine.model.c_str());
  std::printf("  release  %s, Linux %s\n", machine.release.c_str(), machine.kernel.c_str());
  if (machine.contiguousKb && machine.contiguousFreeKb) {
    std::printf("  memory   contiguous %llu kB, %llu kB of it free\n",
                static_cast<unsigned long long>(*machine.contiguousKb),
                static_cast<unsigned long long>(*machine.contiguousFreeKb));
  }
  if (board.frames) {
    printFrames(*board.frames, board.trial());
  }
  for (const OtherEncoder& encoder : board.otherEncoders) {
    std::printf("  %s is not supported: it is of %s\n", encoder.name, encoder.boards);
  }
}

void printText(const Diagnosis& board, const std::vector<std::string>& next,
               const Verdict& verdict) {
  std::printf("%s\n", verdict.line.c_str());
  for (const std::string& line : next) {
    std::printf("next: %s\n", line.c_str());
  }
  printMachine(board);
  if (board.available()) {
    std::printf("\ncodecs\n");
    std::for_each(board.codecs.begin(), board.codecs.end(), printCodec);
    printProblems(board);
  }
  printElements(board);
  if (!board.failedPlugins.empty()) {
    std::printf("\nplugins that GStreamer could not load\n");
  }
  for (const FailedPlugin& plugin : board.failedPlugins) {
    std::printf("  %s\n    %s\n", plugin.file.c_str(), plugin.error.c_str());
  }
  std::printf("\ndevices\n%s", board.devices.empty() ? "  none\n" : "");
  std::for_each(board.devices.begin(), board.devices.end(), printDevice);
}

}  // namespace

CLI::App& Doctor::addOptions(CLI::App& program) {
  CLI::App& command = *program.add_subcommand(
      "doctor",
      "Try out what the board offers, and say what to do where it does not work. The board is "
      "usable, and the exit code 0, if H.264 or H.265 (or what --codec names) encodes and every "
      "description that the library writes for it fits the board's elements");
  addBoardOption(command, board_);
  addCodecOption(command, codec_, allCodecs(), "Codec that has to work");
  command
      .add_option_function<unsigned int>(
          "--timeout", [this](unsigned int seconds) { limit_ = std::chrono::seconds(seconds); },
          "Seconds for each check, which runs in a process of its own")
      ->check(CLI::Range(1U, 3600U))
      ->default_str("10");
  command.add_flag("--json", json_, "Print JSON");
  return command;
}

void Doctor::run() {
  const Diagnosis board = diagnose(openBoard(board_), CheckRunner(board_, limit_));
  const Verdict verdict = judge(board, codec_);
  (json_ ? printJson : printText)(board, adviseOn(board), verdict);
  std::fflush(stdout);
  if (verdict.code != ExitCode::Ok) {
    throw StationError(verdict.code, "not usable; the first lines of the report say why");
  }
}

}  // namespace station
