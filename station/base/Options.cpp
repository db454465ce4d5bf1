#include "base/Options.h"

#include <cmath>
#include <cstdint>
#include <cstdlib>

#include <CLI/CLI.hpp>

#include "base/StationError.h"

namespace station {

using media_backend::GstVideoBackend;

void addBoardOption(CLI::App& command, std::string& board) {
  command
      .add_option("--board", board,
                  "Simulate a board instead of using the machine's: nvidia, imx, or GStreamer "
                  "element names with commas between them")
      ->type_name("{nvidia,imx}");
}

void addCodecOption(CLI::App& command, GstVideoBackend::Codec& codec, const char* help) {
  CLI::Option* const option = command.add_option_function<std::string>(
      "--codec",
      [&codec](const std::string& text) {
        codec = GstVideoBackend::codecFromString(text);
        if (codec == GstVideoBackend::Codec::Unknown) {
          throw StationError(ExitCode::Usage, "unknown codec: " + text);
        }
      },
      help);
  option->type_name("{h264,h265,av1,mjpeg}");
  if (codec != GstVideoBackend::Codec::Unknown) {
    option->default_str(GstVideoBackend::codecName(codec));
  }
}

void addEncoderOptions(CLI::App& command, GstVideoBackend::EncoderConfig& encoder) {
  encoder.codec = GstVideoBackend::Codec::H264;
  addCodecOption(command, encoder.codec, "h264, h265 (hevc), av1 or mjpeg, as the command can");
  command.add_option("--bitrate", encoder.bitrateBps, "Video bit rate in bits per second")
      ->check(CLI::Range(std::uint32_t{1000}, std::uint32_t{1000000000}))
      ->capture_default_str();
}

std::string refuseNan(const std::string& text) {
  return std::isnan(std::strtod(text.c_str(), nullptr)) ? text + " is no number" : "";
}

}  // namespace station
