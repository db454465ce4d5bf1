#include "doctor/DoctorCheck.h"

#include <algorithm>
#include <csignal>
#include <cstdio>
#include <iterator>
#include <optional>
#include <sstream>
#include <stdexcept>

#include <gst/gst.h>
#include <lumora/LumoraPicture.h>
#include <sys/prctl.h>
#include <CLI/CLI.hpp>
#include <nlohmann/json.hpp>

#include "base/Board.h"
#include "base/Handles.h"
#include "base/Options.h"
#include "base/Pipelines.h"
#include "camera/FrameFeed.h"
#include "doctor/Child.h"
#include "doctor/DescriptionCheck.h"
#include "doctor/Devices.h"
#include "doctor/Trial.h"

namespace station {
namespace {

using media_backend::GstVideoBackend;
using nlohmann::ordered_json;

// With what the element adds, as drivers' errors need.
[[noreturn]] void fail(const BusError& error) {
  throw std::runtime_error(error.element + ": " + error.message +
                           (error.detail.empty() ? "" : " (" + error.detail + ")"));
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
    if (const std::optional<BusError> error = BusError::take(bus.get())) {
      fail(*error);
    }
    throw std::runtime_error("it does not open, and gives no reason");
  }
  gst_element_set_bus(element.get(), nullptr);
  return nullptr;
}

ordered_json check(const std::string& description) {
  const DescriptionCheck check = checkDescription(description);
  ordered_json problems = ordered_json::array();
  if (const auto& problem = check.problem) {
    problems.push_back({{"offset", problem->offset},
                        {"length", problem->length},
                        {"piece", description.substr(problem->offset, problem->length)},
                        {"message", problem->message},
                        {"missing", problem->missing},
                        {"marked", markProblem(description, *problem)}});
  }
  return {{"problems", problems}, {"elements", check.elements}};
}

// "USE CODEC FRAMES"
ordered_json tryPictures(const std::string& argument) {
  std::istringstream words(argument);
  std::string use;
  std::string codec;
  unsigned int frames = 0;
  words >> use >> codec >> frames;
  const GstVideoBackend& backend = GstVideoBackend::instance();
  const auto isIt = [&use](Use other) { return use == nameOf(other); };
  const Trial trial = tryOut(backend, *std::find_if(std::begin(kUses), std::end(kUses) - 1, isIt),
                             GstVideoBackend::codecFromString(codec), frames);
  return {{"feed", trial.feed},       {"zeroCopy", trial.isZeroCopy},
          {"sent", trial.sent},       {"encoded", trial.encoded},
          {"decoder", trial.decoder}, {"compared", !trial.decoder.empty()},
          {"fault", trial.fault}};
}

// "FRAMES": are there so many in memory that the elements take?
ordered_json reserveFrames(const std::string& argument) {
  FrameFormat format;
  FrameFeed feed(GstVideoBackend::instance(), {});
  feed.begin(format);
  const std::vector<std::uint8_t> grey(format.width * format.height * 3 / 2, 128);
  const auto picture =
      lumora::LumoraPicture::fromNv12Host(grey.data(), format.width, format.height, format.width);
  std::vector<std::shared_ptr<lumora::ExportedFrame>> frames(std::stoul(argument));
  for (auto& frame : frames) {
    frame = feed.exportPicture(*picture);
  }
  return {{"feed", format.feed}, {"zeroCopy", feed.isZeroCopy()}};
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
  return toJson(describeDevice(node));
}

constexpr struct {
  Check check;
  const char* name;
  ordered_json (*run)(const std::string& argument);
} kChecks[] = {
    {Check::Open, "open", openElement},
    {Check::Description, "description", check},
    {Check::Frames, "frames", reserveFrames},
    {Check::Trial, "trial", tryPictures},
    {Check::Load, "load", load},
    {Check::Device, "device", device},
};

ordered_json runHere(const std::string& name, const std::string& argument) {
  for (const auto& row : kChecks) {
    if (name == row.name) {
      return row.run(argument);
    }
  }
  throw StationError(ExitCode::Usage, "doctor has no check \"" + name + "\"");
}

}  // namespace

const char* nameOf(Check check) {
  return std::find_if(std::begin(kChecks), std::end(kChecks) - 1,
                      [check](const auto& row) { return row.check == check; })
      ->name;
}

CLI::App& DoctorCheck::addOptions(CLI::App& program) {
  CLI::App& command = *program.add_subcommand("doctor-check", "One check of doctor");
  command.group("");  // hidden
  addBoardOption(command, board_);
  command.add_option("check", check_)->required();
  command.add_option("argument", argument_)->required();
  return command;
}

void DoctorCheck::run() {
  prctl(PR_SET_PDEATHSIG, SIGKILL);
  openBoard(board_);
  ordered_json answer = {{"error", ""}, {"value", nullptr}};
  try {
    answer["value"] = runHere(check_, argument_);
  } catch (const std::runtime_error& error) {
    answer["error"] = error.what();
  }
  std::printf("\n%s%s\n", kResultMark,
              answer.dump(-1, ' ', false, ordered_json::error_handler_t::replace).c_str());
  // Before a driver crashes at exit.
  std::fflush(stdout);
}

}  // namespace station
