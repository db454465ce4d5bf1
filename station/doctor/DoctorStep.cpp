#include "doctor/DoctorStep.h"

#include <cstdio>
#include <cstring>
#include <stdexcept>

#include <glib.h>
#include <gst/app/gstappsink.h>
#include <gst/gst.h>
#include <sys/prctl.h>
#include <csignal>

#include "base/GstPtr.h"
#include "base/Pipelines.h"
#include "base/StationError.h"
#include "doctor/Child.h"
#include "doctor/DescriptionCheck.h"
#include "doctor/Devices.h"

namespace station {
namespace {

using nlohmann::ordered_json;

// In front of the line with the result: drivers write to standard output as well.
constexpr const char* kResultMark = "@doctor ";
constexpr std::size_t kLinesKept = 5;

// The error that `element` posted, with its debug text; empty if there is none.
std::string takeError(GstBus* bus) {
  g_autoptr(GstMessage) message = gst_bus_pop_filtered(bus, GST_MESSAGE_ERROR);
  if (message == nullptr) {
    return {};
  }
  g_autoptr(GError) error = nullptr;
  g_autofree gchar* debug = nullptr;
  gst_message_parse_error(message, &error, &debug);
  std::string text = std::string(GST_OBJECT_NAME(GST_MESSAGE_SRC(message))) + ": " + error->message;
  // The debug text ends with what the element adds to file, line and function.
  const char* const added = debug != nullptr ? std::strstr(debug, "\n") : nullptr;
  return added != nullptr && added[1] != '\0' ? text + " (" + (added + 1) + ")" : text;
}

ordered_json openElement(const std::string& name) {
  GstElement* const made = gst_element_factory_make(name.c_str(), nullptr);
  if (made == nullptr) {
    throw std::runtime_error("GStreamer cannot make the element: its plugin does not load");
  }
  const PipelinePtr element(GST_ELEMENT(gst_object_ref_sink(made)));
  const GstPtr<GstBus> bus(gst_bus_new());
  gst_element_set_bus(element.get(), bus.get());
  const GstStateChangeReturn change = gst_element_set_state(element.get(), GST_STATE_READY);
  if (change == GST_STATE_CHANGE_FAILURE ||
      gst_element_get_state(element.get(), nullptr, nullptr, GST_CLOCK_TIME_NONE) ==
          GST_STATE_CHANGE_FAILURE) {
    const std::string error = takeError(bus.get());
    throw std::runtime_error(error.empty() ? "it does not open, and gives no reason" : error);
  }
  gst_element_set_bus(element.get(), nullptr);
  return nullptr;
}

ordered_json check(const std::string& description) {
  ordered_json problems = ordered_json::array();
  for (const DescriptionProblem& problem : checkDescription(description)) {
    problems.push_back({{"offset", problem.offset},
                        {"length", problem.length},
                        {"piece", description.substr(problem.offset, problem.length)},
                        {"message", problem.message},
                        {"marked", markProblem(description, problem)}});
  }
  return problems;
}

// Counts the pictures that come out until the end of the stream.
ordered_json encode(const std::string& description) {
  const PipelinePtr pipeline = buildPipeline(description, "the trial");
  const GstPtr<GstElement> sink = findElement(pipeline.get(), "sink");
  const GstPtr<GstBus> bus(gst_element_get_bus(pipeline.get()));
  gst_element_set_state(pipeline.get(), GST_STATE_PLAYING);
  unsigned int pictures = 0;
  gsize bytes = 0;
  while (gst_app_sink_is_eos(GST_APP_SINK(sink.get())) == FALSE) {
    g_autoptr(GstSample) sample =
        gst_app_sink_try_pull_sample(GST_APP_SINK(sink.get()), 100 * GST_MSECOND);
    if (sample != nullptr) {
      ++pictures;
      bytes += gst_buffer_get_size(gst_sample_get_buffer(sample));
    }
    const std::string error = takeError(bus.get());
    if (!error.empty()) {
      throw std::runtime_error(error);
    }
  }
  if (pictures == 0 || bytes == 0) {
    throw std::runtime_error("the encoder takes pictures and gives none");
  }
  return {{"pictures", pictures}, {"bytes", bytes}};
}

ordered_json load(const std::string& file) {
  g_autoptr(GError) error = nullptr;
  g_autoptr(GstPlugin) plugin = gst_plugin_load_file(file.c_str(), &error);
  if (plugin == nullptr) {
    throw std::runtime_error(error->message);
  }
  return nullptr;
}

ordered_json device(const std::string& node) {
  const Device device = describeDevice(node);
  return {{"node", device.node},     {"kind", device.kind},   {"driver", device.driver},
          {"card", device.card},     {"bus", device.bus},     {"takes", device.inputs},
          {"gives", device.formats}, {"error", device.error}, {"remedy", device.remedy}};
}

ordered_json runHere(const std::string& step, const std::string& argument) {
  if (step == kStepOpen) {
    return openElement(argument);
  }
  if (step == kStepCheck) {
    return check(argument);
  }
  if (step == kStepEncode) {
    return encode(argument);
  }
  if (step == kStepLoad) {
    return load(argument);
  }
  if (step == kStepDevice) {
    return device(argument);
  }
  throw StationError(ExitCode::Usage, "doctor has no step \"" + step + "\"");
}

// The lines before the result.
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

StepResult readResult(const char* step, const ChildResult& child, std::chrono::seconds limit) {
  StepResult result;
  result.said = lastLines(child.output);
  const std::size_t mark = child.output.rfind(kResultMark);
  switch (child.end) {
    case ChildResult::End::TimedOut:
      result.error = (step == std::string(kStepOpen) ? "did not open in " : "was not done in ") +
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

void doctorStep(const std::string& step, const std::string& argument) {
  prctl(PR_SET_PDEATHSIG, SIGKILL);
  ordered_json answer = {{"error", ""}, {"value", nullptr}};
  try {
    answer["value"] = runHere(step, argument);
  } catch (const StationError& error) {
    if (error.code() == ExitCode::Usage) {
      throw;
    }
    answer["error"] = error.what();
  } catch (const std::runtime_error& error) {
    answer["error"] = error.what();
  }
  std::printf("\n%s%s\n", kResultMark,
              answer.dump(-1, ' ', false, ordered_json::error_handler_t::replace).c_str());
  // Before a driver crashes on the way out.
  std::fflush(stdout);
}

StepResult StepRunner::run(const char* step, const std::string& argument) const {
  g_autoptr(GError) error = nullptr;
  g_autofree gchar* self = g_file_read_link("/proc/self/exe", &error);
  if (self == nullptr) {
    StepResult result;
    result.error = error->message;
    return result;
  }
  std::vector<std::string> arguments = {self, "doctor-step"};
  if (!board_.empty()) {
    arguments.insert(arguments.end(), {"--board", board_});
  }
  arguments.insert(arguments.end(), {step, argument});
  return readResult(step, runTimed(arguments, limit_), limit_);
}

}  // namespace station
