#include "camera/CameraOptions.h"

#include <media_backend/GstNv12Sample.h>
#include <CLI/CLI.hpp>

namespace station {

void CameraOptions::addTo(CLI::App& command) {
  command.add_option("source", source, "V4L2 device, still image or media file")
      ->type_name("FILE")
      ->required();
  command.add_option("--width", width, "Pixels, rounded down to even")
      ->check(CLI::Range(2U, 8192U))
      ->capture_default_str();
  command.add_option("--height", height, "Pixels, rounded down to even")
      ->check(CLI::Range(2U, 8192U))
      ->capture_default_str();
  command.add_option("--fps", fps, "Frames per second")
      ->check(CLI::Range(1U, 240U))
      ->capture_default_str();
  command.add_flag(
      "--allow-playlists", allowPlaylists,
      "Play a playlist (HLS, DASH), which reads the files and addresses that it names");
  command.parse_complete_callback([this] {
    width = media_backend::gst_source::even_dimension(width);
    height = media_backend::gst_source::even_dimension(height);
  });
}

}  // namespace station
