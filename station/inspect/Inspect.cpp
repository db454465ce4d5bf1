#include "inspect/Inspect.h"

#include <cstdio>
#include <iostream>
#include <optional>
#include <utility>
#include <vector>

#include <gio/gio.h>
#include <CLI/CLI.hpp>
#include <nlohmann/json.hpp>

#include "base/Board.h"

namespace station {
namespace {

using media_backend::GstVideoBackend;
using Codec = GstVideoBackend::Codec;

// The descriptions by the names of the operations that write them; unavailable ones are empty.
std::vector<std::pair<std::string, std::string>> describeAll(const GstVideoBackend& backend,
                                                             const DescriptionSettings& settings) {
  const GstVideoBackend::EncoderConfig& encoder = settings.encoder;
  return {
      {"inputConversionChain", backend.inputConversionChain(nullptr)},
      {"transportEncoderChain", backend.transportEncoderChain(encoder, kConfigInterval)},
      {"rtspPayloaderChain", backend.rtspPayloaderChain(encoder.codec, settings.mtu)},
      {"httpUploadChain", backend.httpUploadChain(nullptr)},
      {"httpEncoderChain", backend.httpEncoderChain(encoder)},
      {"recorderPipeline", describe(backend, Use::Record, settings)},
  };
}

void printProfileJson(const GstVideoBackend& backend, const DescriptionSettings& settings) {
  nlohmann::ordered_json report;
  report["profile"] = backend.name();
  report["available"] = backend.available();
  report["codecs"] = nlohmann::ordered_json::object();
  for (const Codec codec : kCodecs) {
    report["codecs"][GstVideoBackend::codecName(codec)] = backend.supports(codec);
  }
  report["descriptions"] = nlohmann::ordered_json::object();
  for (const auto& [name, text] : describeAll(backend, settings)) {
    report["descriptions"][name] =
        text.empty() ? nlohmann::ordered_json() : nlohmann::ordered_json(text);
  }
  report["elements"] = nlohmann::ordered_json::array();
  for (const BoardElement& element : lookUpElements()) {
    report["elements"].push_back({{"profile", platformName(element.platform)},
                                  {"role", element.role},
                                  {"name", element.name},
                                  {"present", element.present}});
  }
  std::cout << report.dump(2) << '\n';
}

void printElements() {
  std::optional<GstVideoBackend::Platform> platform;
  for (const BoardElement& element : lookUpElements()) {
    if (platform != element.platform) {
      platform = element.platform;
      std::printf("\nelements for %s\n", platformName(*platform));
    }
    std::printf("  %-8s %-20s %s\n", element.present ? "found" : "missing", element.name,
                element.role);
  }
}

void printProfileText(const GstVideoBackend& backend, const DescriptionSettings& settings) {
  std::printf("profile  %s\n", backend.name());
  std::printf("codecs  ");
  for (const Codec codec : kCodecs) {
    std::printf(" %s:%s", GstVideoBackend::codecName(codec),
                backend.supports(codec) ? "yes" : "no");
  }
  std::printf("\n");
  for (const auto& [name, text] : describeAll(backend, settings)) {
    std::printf("\n%s\n%s\n", name.c_str(),
                text.empty() ? "  (not with this profile and codec)" : text.c_str());
  }
  printElements();
}

// Has Graphviz draw the pipeline that GStreamer builds from the recorder's description.
void drawGraph(const GstVideoBackend& backend, const DescriptionSettings& settings,
               const std::string& file) {
  const PipelinePtr pipeline =
      buildPipeline(requireDescription(backend, Use::Record, settings), "the recorder");
  g_autofree gchar* dot =
      gst_debug_bin_to_dot_data(GST_BIN(pipeline.get()), GST_DEBUG_GRAPH_SHOW_ALL);
  g_autoptr(GError) error = nullptr;
  g_autoptr(GSubprocess) graphviz = g_subprocess_new(G_SUBPROCESS_FLAGS_STDIN_PIPE, &error, "dot",
                                                     "-Tsvg", "-o", file.c_str(), nullptr);
  if (graphviz == nullptr) {
    throw StationError(ExitCode::Internal,
                       std::string("drawing takes Graphviz's program dot: ") + error->message);
  }
  if (!g_subprocess_communicate_utf8(graphviz, dot, nullptr, nullptr, nullptr, &error) ||
      !g_subprocess_get_successful(graphviz)) {
    throw StationError(ExitCode::Output, "cannot draw to " + file);
  }
}

}  // namespace

CLI::App& Inspect::addOptions(CLI::App& program) {
  CLI::App& command = *program.add_subcommand(
      "inspect", "Show the board's video platform, its codecs, and what the library makes of it");
  addBoardOption(command, board_);
  encoder_.addTo(command, settings_.encoder, allCodecs());
  command.add_option("--segment-seconds", settings_.segmentSeconds, "Longest segment")
      ->check(CLI::Range(1U, 86400U))
      ->capture_default_str();
  command.add_flag("--klv", settings_.klv, "Describe the recorder with its KLV track");
  command.add_flag("--json", json_, "Print JSON");
  command
      .add_option("--graph", graph_,
                  "Draw the recorder's pipeline into this SVG file (takes Graphviz)")
      ->type_name("FILE");
  return command;
}

void Inspect::run() {
  const GstVideoBackend& backend = openBoard(board_);
  (json_ ? printProfileJson : printProfileText)(backend, settings_);
  std::fflush(stdout);
  requirePlatform(backend);
  if (!graph_.empty()) {
    drawGraph(backend, settings_, graph_);
  }
}

}  // namespace station
