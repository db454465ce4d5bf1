#pragma once

#include <string>
#include <vector>

#include "support/Command.h"

// Writes `frames` frames of ffmpeg's moving test picture into `path`, whose extension decides on
// the format; H.264 in MP4 and Matroska. `options`: output options of ffmpeg.
inline void makeClip(const std::string& path, const std::string& size, int fps, int frames,
                     const std::vector<std::string>& options = {}) {
  const std::string picture = "testsrc2=size=" + size + ":rate=" + std::to_string(fps);
  std::vector<std::string> command = {"ffmpeg", "-v", "error", "-f", "lavfi", "-i", picture};
  command.insert(command.end(), options.begin(), options.end());
  command.insert(command.end(), {"-frames:v", std::to_string(frames), path});
  runCommand(command);
}
