#pragma once

#include <string>

#include "base/Command.h"

namespace station {

struct CameraOptions {
  std::string source;           // V4L2 device, still image or media file
  unsigned int width = 0;       // pixels, even; 0: as the source is
  unsigned int height = 0;      // likewise
  bool stretch = false;         // fill the size, without borders
  unsigned int fps = 0;         // of a device: at most; 0: as the source is
  bool loop = true;             // play a media file again after its end
  bool allowPlaylists = false;  // play media files that read what they name

  void addTo(CLI::App& command);
};

}  // namespace station
