#pragma once

#include <optional>
#include <string>

#include <lumora/FrameMemory.h>

#include "base/Command.h"

namespace station {

// How frames get to the encoder.
enum class Feed {
  Auto,      // without a copy where the source and the board's elements allow it
  ZeroCopy,  // without a copy, or not at all
  Copy,      // in plain system memory, which the elements copy
};

struct CameraOptions {
  std::string source;           // V4L2 device, still image or media file
  unsigned int width = 0;       // pixels, even; 0: as the source is
  unsigned int height = 0;      // likewise
  bool stretch = false;         // fill the size, without borders
  unsigned int fps = 0;         // of a device: at most; 0: as the source is
  bool loop = true;             // play a media file again after its end
  bool allowPlaylists = false;  // play media files that read what they name
  Feed feed = Feed::Auto;
  std::optional<lumora::FrameMemoryKind> memory{};  // empty: the best that the elements take

  void addTo(CLI::App& command);
  // --feed and --memory, of commands that encode.
  void addFeedTo(CLI::App& command);
};

}  // namespace station
