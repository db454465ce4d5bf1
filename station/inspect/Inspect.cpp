#include "inspect/Inspect.h"

#include <cstdio>
#include <iostream>
#include <utility>
#include <vector>

#include <gio/gio.h>
#include <nlohmann/json.hpp>

#include "base/Board.h"
#include "base/Pipelines.h"
#include "base/StationError.h"

namespace station {
namespace {

using media_backend::GstVideoBackend;
using Codec = GstVideoBackend::Codec;

constexpr Codec kCodecs[] = {Codec::H264, Codec::H265, Codec::Av1, Codec::Mjpeg};

// The descriptions by the names of the operations that write them; empty ones cannot be had.
std::vector<std::pair<std::string, std::string>> describeAll(const GstVideoBackend& backend,
                                                             const InspectOptions& options) {
  return {
      {"inputConversionChain", backend.inputConversionChain(nullptr)},
      {"transportEncoderChain", backend.transportEncoderChain(options.encoder, "-1")},
      {"rtspPayloaderChain", backend.rtspPayloaderChain(options.encoder.codec, options.mtu)},
      {"httpUploadChain", backend.httpUploadChain(nullptr)},
      {"httpEncoderChain", backend.httpEncoderChain(options.encoder)},
      {"recorderPipeline", backend.recorderPipeline(options.encoder, options.segmentSeconds,
                                                    options.klv, /*withAudio=*/false)},
  };
}

void printJson(const GstVideoBackend& backend, const InspectOptions& options) {
  nlohmann::ordered_json report;
  report["profile"] = backend.name();
  report["available"] = backend.available();
  report["codecs"] = nlohmann::ordered_json::object();
  for (const Codec codec : kCodecs) {
    report["codecs"][GstVideoBackend::codecName(codec)] = backend.supports(codec);
  }
  report["descriptions"] = nlohmann::ordered_json::object();
  for (const auto& [name, text] : describeAll(backend, options)) {
    report["descriptions"][name] =
        text.empty() ? nlohmann::ordered_json() : nlohmann::ordered_json(text);
  }
  report["elements"] = nlohmann::ordered_json::array();
  for (const BoardElement& element : lookUpElements()) {
    report["elements"].push_back({{"profile", element.platform},
                                  {"role", element.role},
                                  {"name", element.name},
                                  {"present", element.present}});
  }
  std::cout << report.dump(2) << '\n';
}

void printElements() {
  const char* platform = "";
  for (const BoardElement& element : lookUpElements()) {
    if (element.platform != std::string(platform)) {
      platform = element.platform;
      std::printf("\nelements for %s\n", platform);
    }
    std::printf("  %-8s %-20s %s\n", element.present ? "found" : "missing", element.name,
                element.role);
  }
}

void printText(const GstVideoBackend& backend, const InspectOptions& options) {
  std::printf("profile  %s\n", backend.name());
  std::printf("codecs  ");
  for (const Codec codec : kCodecs) {
    std::printf(" %s:%s", GstVideoBackend::codecName(codec),
                backend.supports(codec) ? "yes" : "no");
  }
  std::printf("\n");
  for (const auto& [name, text] : describeAll(backend, options)) {
    std::printf("\n%s\n%s\n", name.c_str(),
                text.empty() ? "  (not with this profile and codec)" : text.c_str());
  }
  printElements();
}

// Has Graphviz draw the pipeline that GStreamer builds from the recorder's description.
void drawGraph(const GstVideoBackend& backend, const InspectOptions& options) {
  const std::string description = backend.recorderPipeline(options.encoder, options.segmentSeconds,
                                                           options.klv, /*withAudio=*/false);
  if (description.empty()) {
    throw StationError(ExitCode::CodecNotUsable,
                       std::string("no recorder to draw: this board does not record ") +
                           GstVideoBackend::codecName(options.encoder.codec));
  }
  const PipelinePtr pipeline = buildPipeline(description, "the recorder");
  g_autofree gchar* dot =
      gst_debug_bin_to_dot_data(GST_BIN(pipeline.get()), GST_DEBUG_GRAPH_SHOW_ALL);
  g_autoptr(GError) error = nullptr;
  g_autoptr(GSubprocess) graphviz = g_subprocess_new(G_SUBPROCESS_FLAGS_STDIN_PIPE, &error, "dot",
                                                     "-Tsvg", "-o", options.graph.c_str(), nullptr);
  if (graphviz == nullptr) {
    throw StationError(ExitCode::Internal,
                       std::string("drawing takes Graphviz's program dot: ") + error->message);
  }
  if (!g_subprocess_communicate_utf8(graphviz, dot, nullptr, nullptr, nullptr, &error) ||
      !g_subprocess_get_successful(graphviz)) {
    throw StationError(ExitCode::Output, "cannot draw to " + options.graph);
  }
}

}  // namespace

void inspect(const GstVideoBackend& backend, const InspectOptions& options) {
  if (options.json) {
    printJson(backend, options);
  } else {
    printText(backend, options);
  }
  std::fflush(stdout);
  requirePlatform(backend);
  if (!options.graph.empty()) {
    drawGraph(backend, options);
  }
}

}  // namespace station
