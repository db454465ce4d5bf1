#include "base/Options.h"

#include <algorithm>
#include <cmath>
#include <cstdlib>
#include <iterator>
#include <vector>

#include <CLI/CLI.hpp>

#include "base/Board.h"

namespace station {

using media_backend::GstVideoBackend;

void addBoardOption(CLI::App& command, std::string& board) {
  command
      .add_option("--board", board,
                  "Simulate a board instead of using the machine's: nvidia, imx, or GStreamer "
                  "element names with commas between them")
      ->type_name("{nvidia,imx}");
}

Codecs allCodecs() {
  return {std::begin(kCodecs), std::end(kCodecs)};
}

void addCodecOption(CLI::App& command, GstVideoBackend::Codec& codec, const Codecs& choices,
                    const char* help) {
  std::vector<std::string> names(choices.size());
  std::transform(choices.begin(), choices.end(), names.begin(), GstVideoBackend::codecName);
  const auto canonical = [](const std::string& name) -> std::string {
    return GstVideoBackend::codecName(GstVideoBackend::codecFromString(name));
  };
  CLI::Option* const option = command.add_option_function<std::string>(
      "--codec",
      [&codec](const std::string& name) { codec = GstVideoBackend::codecFromString(name); }, help);
  option->check(CLI::IsMember(names, canonical));
  if (codec != GstVideoBackend::Codec::Unknown) {
    option->default_str(GstVideoBackend::codecName(codec));
  }
}

std::string refuseNan(const std::string& text) {
  return std::isnan(std::strtod(text.c_str(), nullptr)) ? text + " is no number" : "";
}

}  // namespace station
