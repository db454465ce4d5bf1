#include "doctor/JsonReport.h"

#include <iostream>
#include <optional>

#include <nlohmann/json.hpp>

namespace station {
namespace {

using nlohmann::ordered_json;

ordered_json valueOrNull(const std::string& text) {
  return text.empty() ? ordered_json() : ordered_json(text);
}

ordered_json toJson(const std::optional<CheckResult>& result) {
  if (!result) {
    return nullptr;
  }
  return {{"ok", result->ok}, {"error", valueOrNull(result->error)}, {"said", result->log}};
}

ordered_json trialJson(const DescriptionDiagnosis& description) {
  ordered_json trial = toJson(description.trial);
  if (description.works()) {
    trial.update(description.trial->value);
  }
  return trial;
}

ordered_json toJson(const CodecDiagnosis& codec) {
  ordered_json uses = ordered_json::object();
  for (const DescriptionDiagnosis& description : codec.descriptions) {
    uses[description.name()] = {{"ok", description.ok()},
                                {"description", description.description},
                                {"error", valueOrNull(description.check.error)},
                                {"problems", description.problems()},
                                {"trial", trialJson(description)}};
  }
  return {{"works", codec.works()},
          {"supported", codec.supported},
          {"encodes", codec.encodes()},
          {"problems", codec.problems},
          {"uses", uses}};
}

ordered_json toJson(const ElementDiagnosis& row) {
  return {{"profile", platformName(row.element.platform)},
          {"role", row.element.role},
          {"name", row.element.name},
          {"present", row.element.present},
          {"plugin", valueOrNull(row.origin.plugin)},
          {"version", valueOrNull(row.origin.version)},
          {"file", valueOrNull(row.origin.file)},
          {"package", valueOrNull(row.origin.package)},
          {"opening", toJson(row.opening)}};
}

ordered_json valueOrNull(const std::optional<std::uint64_t>& number) {
  return number ? ordered_json(*number) : ordered_json();
}

ordered_json toJson(const Machine& machine) {
  return {{"model", valueOrNull(machine.model)},
          {"release", valueOrNull(machine.release)},
          {"kernel", valueOrNull(machine.kernel)},
          {"contiguousKb", valueOrNull(machine.contiguousKb)},
          {"contiguousFreeKb", valueOrNull(machine.contiguousFreeKb)}};
}

ordered_json feedJson(const Diagnosis& board) {
  const CheckResult* const feed = board.feed();
  return feed != nullptr ? feed->value : ordered_json();
}

}  // namespace

void printJson(const Diagnosis& board, const std::vector<std::string>& next,
               const Verdict& verdict) {
  ordered_json report = {{"usable", verdict.code == ExitCode::Ok},
                         {"exitCode", static_cast<int>(verdict.code)},
                         {"verdict", verdict.line},
                         {"next", next},
                         {"profile", board.profile},
                         {"board", toJson(board.machine)},
                         {"frames", feedJson(board)},
                         {"otherEncoders", ordered_json::array()},
                         {"codecs", ordered_json::object()},
                         {"elements", ordered_json::array()},
                         {"failedPlugins", ordered_json::array()},
                         {"devices", ordered_json::array()}};
  for (const CodecDiagnosis& codec : board.codecs) {
    report["codecs"][codec.name()] = toJson(codec);
  }
  for (const OtherEncoder& encoder : board.otherEncoders) {
    report["otherEncoders"].push_back({{"name", encoder.name}, {"boards", encoder.boards}});
  }
  for (const ElementDiagnosis& row : board.elements) {
    report["elements"].push_back(toJson(row));
  }
  for (const FailedPlugin& plugin : board.failedPlugins) {
    report["failedPlugins"].push_back({{"file", plugin.file}, {"error", plugin.error}});
  }
  for (const DeviceDiagnosis& device : board.devices) {
    report["devices"].push_back(
        device.check.ok ? device.check.value
                        : ordered_json{{"node", device.node}, {"error", device.check.error}});
  }
  std::cout << report.dump(2) << '\n';
}

}  // namespace station
