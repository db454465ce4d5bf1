#include "doctor/CheckRunner.h"

#include <cstring>
#include <utility>

#include <gio/gio.h>

#include "doctor/Child.h"

namespace station {
namespace {

using nlohmann::ordered_json;

constexpr std::size_t kLinesKept = 5;

// The last lines but the result.
std::vector<std::string> lastLines(const std::string& output) {
  std::vector<std::string> lines;
  g_auto(GStrv) split = g_strsplit(output.c_str(), "\n", -1);
  for (gchar** line = split; *line != nullptr; ++line) {
    if (**line != '\0' && !g_str_has_prefix(*line, kResultMark)) {
      lines.emplace_back(*line);
    }
  }
  if (lines.size() > kLinesKept) {
    lines.erase(lines.begin(), lines.end() - kLinesKept);
  }
  return lines;
}

CheckResult readResult(Check check, const ChildResult& child, std::chrono::seconds limit) {
  CheckResult result;
  result.log = lastLines(child.output);
  const std::size_t mark = child.output.rfind(kResultMark);
  switch (child.end) {
    case ChildResult::End::TimedOut:
      result.error = (check == Check::Open ? "did not open in " : "was not done in ") +
                     std::to_string(limit.count()) + " s";
      return result;
    case ChildResult::End::Signalled:
      result.error = std::string("crashed: ") + g_strsignal(child.code);
      return result;
    case ChildResult::End::NotStarted:
      result.error = "the check could not be started: " + child.output;
      return result;
    case ChildResult::End::Exited:
      break;
  }
  const std::string line =
      mark != std::string::npos ? child.output.substr(mark + std::strlen(kResultMark)) : "";
  ordered_json answer =
      ordered_json::parse(line.substr(0, line.find('\n')), nullptr, /*allow_exceptions=*/false);
  if (!answer.is_object()) {
    result.error = "it ended the process with exit code " + std::to_string(child.code);
    return result;
  }
  result.error = answer["error"];
  result.ok = result.error.empty();
  result.value = std::move(answer["value"]);
  return result;
}

}  // namespace

CheckResult CheckRunner::run(Check check, const std::string& argument) const {
  g_autoptr(GError) error = nullptr;
  g_autofree gchar* self = g_file_read_link("/proc/self/exe", &error);
  if (self == nullptr) {
    CheckResult result;
    result.error = error->message;
    return result;
  }
  std::vector<std::string> arguments = {self, "doctor-check"};
  if (!board_.empty()) {
    arguments.insert(arguments.end(), {"--board", board_});
  }
  arguments.insert(arguments.end(), {nameOf(check), argument});
  return readResult(check, runTimed(arguments, limit_), limit_);
}

}  // namespace station
