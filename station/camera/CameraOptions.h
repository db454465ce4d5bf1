#pragma once

#include <string>

#include "base/Command.h"

namespace station {

struct CameraOptions {
  std::string source;           // V4L2 device, still image or media file
  unsigned int width = 1280;    // pixels, even
  unsigned int height = 720;    // pixels, even
  unsigned int fps = 30;        // of a device: at most
  bool loop = true;             // play a media file again after its end
  bool allowPlaylists = false;  // play media files that read what they name

  void addTo(CLI::App& command);
};

}  // namespace station
