#include "camera/CameraOptions.h"

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

}  // namespace station
