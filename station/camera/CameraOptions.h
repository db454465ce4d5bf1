#pragma once

#include <optional>
#include <string>

#include <lumora/FrameMemory.h>

#include "base/Command.h"
#include "base/FrameRate.h"

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
  bool exitOnLoss = false;                          // do not wait for a lost camera to come back
  std::optional<FrameRate> rate{};                  // of a media file; empty: by `fps`

  void addTo(CLI::App& command);
  // Those of commands that run a camera: --feed, --memory and --exit-on-loss.
  void addLiveTo(CLI::App& command);
};

}  // namespace station
