#include "camera/CameraOptions.h"

#include <map>

#include <media_backend/GstNv12Sample.h>
#include <CLI/CLI.hpp>

namespace station {

void CameraOptions::addTo(CLI::App& command) {
  command.add_option("source", source, "V4L2 device, still image or media file")
      ->type_name("FILE")
      ->required();
  const auto addSize = [&command](const char* name, unsigned int& pixels, const char* help) {
    command
        .add_option_function<unsigned int>(
            name,
            [&pixels](unsigned int value) {
              pixels = media_backend::gst_source::even_dimension(value);
            },
            help)
        ->check(CLI::Range(2U, 8192U));
  };
  addSize("--width", width,
          "Pixels, rounded down to even; by default 1280 of a device, and a media file's own");
  addSize("--height", height, "Likewise, 720 of a device");
  command.add_flag("--stretch", stretch,
                   "Fill the width and height with a media file of another shape, without borders");
  command.add_option("--fps", fps, "Frames per second; by default 30, and a media file's own")
      ->check(CLI::Range(1U, 240U));
  command.add_flag(
      "--allow-playlists", allowPlaylists,
      "Play a playlist (HLS, DASH), which reads the files and addresses that it names");
}

void CameraOptions::addLiveTo(CLI::App& command) {
  using Kind = lumora::FrameMemoryKind;
  static const std::map<std::string, Feed> kFeeds = {
      {"auto", Feed::Auto}, {"zero-copy", Feed::ZeroCopy}, {"copy", Feed::Copy}};
  static const std::map<std::string, std::optional<Kind>> kKinds = {{"auto", std::nullopt},
                                                                    {"heap", Kind::Heap},
                                                                    {"udmabuf", Kind::Udmabuf},
                                                                    {"memfd", Kind::Memfd}};
  command
      .add_option_function<std::string>(
          "--feed", [this](const std::string& name) { feed = kFeeds.at(name); },
          "How frames get to the encoder: zero-copy or nothing, copied, or the best that works")
      ->type_name("{auto,zero-copy,copy}")
      ->check(CLI::IsMember(kFeeds))
      ->default_str("auto");
  command
      .add_option_function<std::string>(
          "--memory", [this](const std::string& name) { memory = kKinds.at(name); },
          "Where frames are that the camera does not hold: a DMA heap, udmabuf, or memory files, "
          "which only simulated elements take")
      ->type_name("{auto,heap,udmabuf,memfd}")
      ->check(CLI::IsMember(kKinds))
      ->default_str("auto");
  command.add_flag("--exit-on-loss", exitOnLoss,
                   "End when the camera is lost, instead of waiting for it to come back");
}

}  // namespace station
