#pragma once

#include <string>

namespace CLI {  // NOLINT(readability-identifier-naming): the name is CLI11's
class App;
}

namespace station {

struct CameraOptions {
  std::string source;         // V4L2 device, still image or media file
  unsigned int width = 1280;  // pixels, even
  unsigned int height = 720;  // pixels, even
  unsigned int fps = 30;      // of a device: at most
  bool loop = true;           // play a media file again after its end

  void addTo(CLI::App& command);
};

}  // namespace station
