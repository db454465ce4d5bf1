#include "doctor/Doctor.h"

#include <algorithm>
#include <cstdio>
#include <iostream>
#include <sstream>
#include <utility>

#include "base/StationError.h"
#include "doctor/Diagnosis.h"

namespace station {
namespace {

using media_backend::GstVideoBackend;
using Codec = GstVideoBackend::Codec;
using nlohmann::ordered_json;

struct Verdict {
  ExitCode code;
  std::string line;
};

bool isUsable(const Diagnosis& board, Codec wanted) {
  return std::any_of(board.codecs.begin(), board.codecs.end(), [wanted](const auto& codec) {
    const bool counts = wanted == Codec::Unknown
                            ? codec.codec == Codec::H264 || codec.codec == Codec::H265
                            : codec.codec == wanted;
    return counts && codec.works();
  });
}

// Names of the codecs that work for a use, each with a blank in front.
std::string codecsFor(const Diagnosis& board, const char* use) {
  std::string names;
  for (const CodecDiagnosis& codec : board.codecs) {
    for (const UseDiagnosis& row : codec.uses) {
      if (row.use == std::string(use) && row.ok() && codec.encodes()) {
        names += std::string(" ") + codec.name();
      }
    }
  }
  return names.empty() ? " nothing" : names;
}

// Codecs that have a problem, with the first one.
std::string failuresOf(const Diagnosis& board) {
  std::string text;
  for (const CodecDiagnosis& codec : board.codecs) {
    if (!codec.works()) {
      text += std::string("; ") + codec.name() + ": " + codec.problems.front();
    }
  }
  return text;
}

Verdict judge(const Diagnosis& board, Codec wanted) {
  if (!board.available) {
    return {ExitCode::NoPlatform, "not usable: this machine offers no hardware video platform"};
  }
  const bool usable = isUsable(board, wanted);
  std::string line = usable ? "usable: " : "not usable: ";
  line += board.profile + " records" + codecsFor(board, "record") + ", streams over RTSP" +
          codecsFor(board, "rtsp") + ", over HTTP" + codecsFor(board, "http");
  line += failuresOf(board);
  return {usable ? ExitCode::Ok : ExitCode::CodecNotUsable, line};
}

// JSON

ordered_json orNull(const std::string& text) {
  return text.empty() ? ordered_json() : ordered_json(text);
}

ordered_json toJson(const std::optional<StepResult>& result) {
  if (!result) {
    return nullptr;
  }
  return {{"ok", result->ok}, {"error", orNull(result->error)}, {"said", result->said}};
}

ordered_json toJson(const CodecDiagnosis& codec) {
  ordered_json uses = ordered_json::object();
  for (const UseDiagnosis& use : codec.uses) {
    uses[use.use] = {{"ok", use.ok()},
                     {"description", use.description},
                     {"error", orNull(use.check.error)},
                     {"problems", use.check.ok ? use.check.value : ordered_json::array()}};
  }
  return {{"works", codec.works()},
          {"supported", codec.supported},
          {"encoding", toJson(codec.encoding)},
          {"problems", codec.problems},
          {"uses", uses}};
}

ordered_json toJson(const ElementDiagnosis& row) {
  return {{"profile", row.element.platform},
          {"role", row.element.role},
          {"name", row.element.name},
          {"present", row.element.present},
          {"plugin", orNull(row.origin.plugin)},
          {"version", orNull(row.origin.version)},
          {"file", orNull(row.origin.file)},
          {"package", orNull(row.origin.package)},
          {"opening", toJson(row.opening)}};
}

void printJson(const Diagnosis& board, const Verdict& verdict) {
  ordered_json report = {{"usable", verdict.code == ExitCode::Ok},
                         {"exitCode", static_cast<int>(verdict.code)},
                         {"verdict", verdict.line},
                         {"next", board.next},
                         {"profile", board.profile},
                         {"codecs", ordered_json::object()},
                         {"elements", ordered_json::array()},
                         {"failedPlugins", ordered_json::array()},
                         {"devices", ordered_json::array()}};
  for (const CodecDiagnosis& codec : board.codecs) {
    report["codecs"][codec.name()] = toJson(codec);
  }
  for (const ElementDiagnosis& row : board.elements) {
    report["elements"].push_back(toJson(row));
  }
  for (const FailedPlugin& plugin : board.failedPlugins) {
    report["failedPlugins"].push_back({{"file", plugin.file}, {"error", plugin.error}});
  }
  for (std::size_t i = 0; i < board.devices.size(); ++i) {
    const StepResult& device = board.devices[i];
    report["devices"].push_back(
        device.ok ? device.value : ordered_json{{"node", board.nodes[i]}, {"error", device.error}});
  }
  std::cout << report.dump(2) << '\n';
}

// Text

void printSaid(const StepResult& result) {
  for (const std::string& line : result.said) {
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
  if (codec.encoding && !codec.encoding->ok) {
    printSaid(*codec.encoding);
  }
}

void printProblems(const Diagnosis& board) {
  for (const CodecDiagnosis& codec : board.codecs) {
    for (const UseDiagnosis& use : codec.uses) {
      for (const auto& problem : use.check.value) {
        std::printf("\n%s, %s: %s\n", codec.name(), use.use,
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
  if (row.opening && !row.opening->ok) {
    std::printf("           %s\n", row.opening->error.c_str());
    printSaid(*row.opening);
  }
}

void printElements(const Diagnosis& board) {
  const char* platform = "";
  for (const ElementDiagnosis& row : board.elements) {
    if (row.element.platform != std::string(platform)) {
      platform = row.element.platform;
      std::printf("\nelements for %s\n", platform);
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

void printDevice(const std::string& node, const StepResult& device) {
  std::printf("  %s", node.c_str());
  if (!device.ok) {
    std::printf("  %s\n", device.error.c_str());
    return;
  }
  for (const char* const key : {"kind", "driver", "card", "bus"}) {
    const std::string text = device.value[key];
    std::printf("%s%s", text.empty() ? "" : "  ", text.c_str());
  }
  for (const char* const key : {"takes", "gives"}) {
    if (!device.value[key].empty()) {
      std::printf("\n    %s%s", key, joined(device.value[key]).c_str());
    }
  }
  const std::string error = device.value["error"];
  std::printf("%s%s\n", error.empty() ? "" : "\n    cannot be opened: ", error.c_str());
}

void printText(const Diagnosis& board, const Verdict& verdict) {
  std::printf("%s\n", verdict.line.c_str());
  for (const std::string& step : board.next) {
    std::printf("next: %s\n", step.c_str());
  }
  if (!board.codecs.empty()) {
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
  for (std::size_t i = 0; i < board.devices.size(); ++i) {
    printDevice(board.nodes[i], board.devices[i]);
  }
}

}  // namespace

void doctor(const GstVideoBackend& backend, const DoctorOptions& options) {
  const Diagnosis board = diagnose(backend, StepRunner(options.board, options.limit));
  const Verdict verdict = judge(board, options.codec);
  if (options.json) {
    printJson(board, verdict);
  } else {
    printText(board, verdict);
  }
  std::fflush(stdout);
  if (verdict.code != ExitCode::Ok) {
    throw StationError(verdict.code, verdict.line.substr(0, verdict.line.find(':')) +
                                         "; the first lines of the report say why");
  }
}

}  // namespace station
