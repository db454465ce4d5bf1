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

// Part of a check's value; null if the check has not come so far.
ordered_json partOf(const CheckResult* check, const char* key) {
  return check != nullptr && check->value.is_object() ? check->value[key] : ordered_json();
}

ordered_json trialJson(const std::optional<CheckResult>& result) {
  ordered_json trial = toJson(result);
  if (result) {
    for (const char* const key : {"feed", "zeroCopy", "sent", "encoded", "decoder", "compared"}) {
      trial[key] = partOf(&*result, key);
    }
  }
  return trial;
}

ordered_json toJson(const CodecDiagnosis& codec) {
  ordered_json uses = ordered_json::object();
  for (const Use use : kUses) {
    uses[nameOf(use)] = nullptr;
  }
  for (const DescriptionDiagnosis& description : codec.descriptions) {
    uses[description.name()] = {{"ok", description.ok()},
                                {"description", description.description},
                                {"error", valueOrNull(description.check.error)},
                                {"problems", description.problems()},
                                {"trial", trialJson(description.trial)}};
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

ordered_json framesJson(const Diagnosis& board) {
  const CheckResult* const frames = board.frames ? &*board.frames : nullptr;
  const CheckResult* const trial = board.trial();
  return {{"feed", partOf(frames, "feed")},
          {"zeroCopy", partOf(frames, "zeroCopy")},
          {"error", valueOrNull(frames != nullptr ? frames->error : "")},
          {"said", frames != nullptr ? frames->log : std::vector<std::string>()},
          {"sent", partOf(trial, "sent")},
          {"encoded", partOf(trial, "encoded")},
          {"decoder", partOf(trial, "decoder")},
          {"compared", partOf(trial, "compared")}};
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
                         {"frames", framesJson(board)},
                         {"otherEncoders", ordered_json::array()},
                         {"codecs", ordered_json::object()},
                         {"elements", ordered_json::array()},
                         {"failedPlugins", ordered_json::array()},
                         {"devices", board.devices}};
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
  std::cout << report.dump(2) << '\n';
}

}  // namespace station
