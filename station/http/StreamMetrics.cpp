#include "http/StreamMetrics.h"

#include <nlohmann/json.hpp>

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
  status["source"] = server.camera.options().source;
  const FrameFormat& frames = server.camera.format();
  status["width"] = frames.width;
  status["height"] = frames.height;
  status["fps"] = frames.rate.perSecond();
  status["codec"] = GstVideoBackend::codecName(server.options.encoder.codec);
  status["uptime_seconds"] = server.uptimeSeconds;
  status["camera_frames"] = server.camera.frames();
  status["connections"] = server.connections;
  status["max_clients"] = server.options.maxClients;
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
  const auto whole = [&](const std::string& name, const char* type, const char* help,
                         std::uint64_t value) {
    describe(name, type, help);
    text += name + " " + std::to_string(value) + "\n";
  };
  const auto each = [&](const std::string& name, const char* type, const char* help,
                        const auto& valueOf) {
    describe(name, type, help);
    for (const HttpStream& stream : server.streams) {
      text += name + "{codec=\"" + GstVideoBackend::codecName(stream.codec()) + "\"} " +
              std::to_string(valueOf(stream)) + "\n";
    }
  };
  whole("media_station_camera_frames_total", "counter", "Frames that the camera gave.",
        server.camera.frames());
  whole("media_station_connections", "gauge", "Open connections.", server.connections);
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
