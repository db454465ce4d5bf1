#pragma once

#include <filesystem>
#include <string>
#include <vector>

#include <gtest/gtest.h>

#include "Program.h"
#include "support/TempFolder.h"

// In the order of their names.
std::vector<std::filesystem::path> filesIn(const std::filesystem::path& folder);

// A recording of a clip of 60 frames, 30 per second, in a folder of its own.
class Record : public testing::Test {
 protected:
  Record();

  std::vector<std::string> command(const std::vector<std::string>& options,
                                   const std::string& output = "out") const;

  // Verdict of scripts/judge on a recording with metadata and sound. `result`: the recorder's.
  Result judge(const Result& result, const std::vector<std::string>& options,
               const std::string& codec = "h264", const std::string& output = "out") const;

  // Noise, so that no two packets are alike.
  std::string makeSound(int seconds, int channels, const char* name) const;

  // Waits until the recording has begun its `count`-th segment.
  bool awaitSegments(std::size_t count) const;

  // Number of frames that ffmpeg decodes; fails the test on any of its messages.
  static int decodedFrames(const std::filesystem::path& file);

  std::filesystem::path output() const { return folder_.path() / "out"; }

  TempFolder folder_;
  const std::string clip_ = folder_ / "clip.mkv";
};
