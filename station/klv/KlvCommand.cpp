#include "klv/KlvCommand.h"

#include <cstddef>
#include <cstdint>
#include <iostream>

#include <gst/app/gstappsink.h>
#include <CLI/CLI.hpp>
#include <nlohmann/json.hpp>

#include "base/Pipelines.h"
#include "base/StationError.h"
#include "base/StopSignal.h"
#include "metadata/MisbSt0601.h"

namespace station {
namespace {

constexpr GstClockTime kPollInterval = 100 * GST_MSECOND;

struct Counts {
  std::uint64_t sets = 0;
  std::uint64_t damaged = 0;
};

std::string describe(const std::string& source) {
  if (source.rfind("rtsp://", 0) == 0 || source.rfind("rtsps://", 0) == 0) {
    return "rtspsrc name=source ! application/x-rtp,encoding-name=SMPTE336M ! rtpklvdepay ! "
           "appsink name=sink sync=false";
  }
  return std::string(source == "-" ? "fdsrc name=source" : "filesrc name=source") +
         " ! tsdemux ! meta/x-klv ! appsink name=sink sync=false";
}

void print(const Bytes& bytes, Counts& counts) {
  Bytes rest = bytes;
  while (!rest.empty()) {
    std::size_t size = 0;
    const nlohmann::ordered_json set = MisbSt0601::decode(rest, size);
    std::cout << set.dump(-1, ' ', false, nlohmann::json::error_handler_t::replace) << std::endl;
    ++counts.sets;
    counts.damaged += set.contains("error") ? 1U : 0U;
    rest.erase(rest.begin(), rest.begin() + static_cast<std::ptrdiff_t>(size));
  }
}

Bytes bytesOf(GstBuffer* buffer) {
  Bytes bytes(gst_buffer_get_size(buffer));
  gst_buffer_extract(buffer, 0, bytes.data(), bytes.size());
  return bytes;
}

// Until the end, an error, or Ctrl-C.
Counts printSets(GstElement* pipeline, GstAppSink* sink) {
  watchStopSignals(/*isHangUpStop=*/true);
  Counts counts;
  const GstPtr<GstBus> bus(gst_element_get_bus(pipeline));
  while (!isStopRequested()) {
    g_autoptr(GstSample) sample = gst_app_sink_try_pull_sample(sink, kPollInterval);
    if (sample != nullptr) {
      print(bytesOf(gst_sample_get_buffer(sample)), counts);
      continue;
    }
    if (gst_app_sink_is_eos(sink)) {
      break;
    }
    if (const std::optional<BusError> error = BusError::take(bus.get())) {
      if (counts.sets == 0) {
        throw error->as(ExitCode::Source);
      }
      break;
    }
  }
  return counts;
}

}  // namespace

CLI::App& KlvCommand::addOptions(CLI::App& program) {
  CLI::App& command = *program.add_subcommand(
      "klv", "Print the metadata (KLV) of a recording or an RTSP stream as JSON lines");
  command.add_option("SOURCE", source_, "An MPEG-TS file, - for standard input, or rtsp://...")
      ->required();
  return command;
}

void KlvCommand::run() {
  const PipelinePtr pipeline = buildPipeline(describe(source_), "the reader");
  const GstPtr<GstElement> source = findElement(pipeline.get(), "source");
  const GstPtr<GstElement> sink = findElement(pipeline.get(), "sink");
  if (source_ != "-") {
    g_object_set(source.get(), "location", source_.c_str(), nullptr);
  }
  gst_element_set_state(pipeline.get(), GST_STATE_PLAYING);
  const Counts counts = printSets(pipeline.get(), GST_APP_SINK(sink.get()));
  if (counts.sets == 0) {
    throw StationError(ExitCode::Source, "no metadata in " + source_);
  }
  if (counts.damaged > 0) {
    throw StationError(ExitCode::Source, std::to_string(counts.damaged) + " of " +
                                             std::to_string(counts.sets) + " sets are damaged");
  }
}

}  // namespace station
