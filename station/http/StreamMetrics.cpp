#include "http/StreamMetrics.h"

#include <utility>

#include <nlohmann/json.hpp>

#include "base/Metrics.h"

namespace station {

using media_backend::GstVideoBackend;
namespace {

nlohmann::json orNull(const std::string& text) {
  return text.empty() ? nlohmann::json() : nlohmann::json(text);
}

}  // namespace

std::string statusJson(const ServerStatus& server) {
  nlohmann::ordered_json status;
  status["profile"] = server.backend.name();
  status["source"] = server.camera.source;
  status["width"] = server.frames.width;
  status["height"] = server.frames.height;
  status["fps"] = server.frames.rate.perSecond();
  status["codec"] = GstVideoBackend::codecName(server.options.encoder.codec);
  status["uptime_seconds"] = server.uptimeSeconds;
  status["max_clients"] = server.options.maxClients;
  Metrics::visit([&status](const std::string& part, const Metrics::Figures& figures) {
    for (const Metrics::Figure& figure : figures) {
      nlohmann::ordered_json& place = status[part][figure.name];
      (figure.reason != nullptr ? place[figure.reason] : place) = figure.value;
    }
  });
  status["streams"] = nlohmann::ordered_json::array();
  for (const HttpStream& stream : server.streams) {
    const HttpStream::Counts counts = stream.counts();
    const HttpStream::Rates rates = stream.rates();
    const std::optional<double> mp4Time = stream.mp4Time();
    status["streams"].push_back({{"codec", GstVideoBackend::codecName(stream.codec())},
                                 {"path", stream.path()},
                                 {"mp4", orNull(stream.mp4Path())},
                                 {"mp4_time", mp4Time ? nlohmann::json(*mp4Time) : nullptr},
                                 {"running", stream.isRunning()},
                                 {"viewers", stream.readers()},
                                 {"frame_rate", rates.perSecond},
                                 {"bit_rate", rates.bitsPerSecond},
                                 {"frames", counts.accessUnits},
                                 {"bytes", counts.bytes},
                                 {"skipped", counts.skipped},
                                 {"oversized", counts.oversized}});
  }
  // Other encodings than UTF-8 occur in the source's name.
  return status.dump(2, ' ', false, nlohmann::ordered_json::error_handler_t::replace) + "\n";
}

std::string prometheusText(const ServerStatus& server) {
  std::string text;
  const auto describe = [&text](const std::string& name, const char* type, const char* help) {
    text += "# HELP " + name + " " + help + "\n# TYPE " + name + " " + type + "\n";
  };
  const auto each = [&](const std::string& name, const char* type, const char* help,
                        const auto& valueOf) {
    describe(name, type, help);
    for (const HttpStream& stream : server.streams) {
      text += name + "{codec=\"" + GstVideoBackend::codecName(stream.codec()) + "\"} " +
              std::to_string(valueOf(stream)) + "\n";
    }
  };
  Metrics::visit([&](const std::string& part, const Metrics::Figures& figures) {
    std::string described;
    for (const Metrics::Figure& figure : figures) {
      const bool isCounter = figure.kind == Metrics::Kind::Counter;
      const std::string name =
          "media_station_" + part + "_" + figure.name + (isCounter ? "_total" : "");
      if (std::exchange(described, name) != name) {
        describe(name, isCounter ? "counter" : "gauge", figure.help);
      }
      const std::string label =
          figure.reason != nullptr ? "{reason=\"" + std::string(figure.reason) + "\"}" : "";
      text += name + label + " " + std::to_string(figure.value) + "\n";
    }
  });
  each("media_station_viewers", "gauge", "Clients that watch.",
       [](const HttpStream& stream) { return stream.readers(); });
  each("media_station_encoded_frames_total", "counter", "Frames that came out of the encoder.",
       [](const HttpStream& stream) { return stream.counts().accessUnits; });
  each("media_station_encoded_bytes_total", "counter", "Bytes that came out of the encoder.",
       [](const HttpStream& stream) { return stream.counts().bytes; });
  each("media_station_skipped_frames_total", "counter", "Frames that clients were too slow for.",
       [](const HttpStream& stream) { return stream.counts().skipped; });
  each("media_station_oversized_frames_total", "counter", "Frames too large to be sent.",
       [](const HttpStream& stream) { return stream.counts().oversized; });
  return text;
}

}  // namespace station
