// Takes pictures out of one file, as a camera that has been given it: for files that are broken.
//
// Usage: take-picture still|media FILE
// Prints what came of it and exits with 0, whether that is a picture or an error.

#include <chrono>
#include <cstdio>
#include <exception>
#include <string>

#include <media_backend/MediaFileFrameSource.h>
#include <media_backend/StillImageFrameSource.h>

namespace {

constexpr int kMostFrames = 10;
constexpr std::chrono::seconds kPatience{2};

int takeStill(const std::string& path, std::string& error) {
  return media_backend::StillImageFrameSource().load({path}, error) != nullptr ? 1 : 0;
}

int takeFrames(const std::string& path, std::string& error) {
  media_backend::MediaFileFrameSource source;
  media_backend::MediaFileFrameSourceConfig config;
  config.path = path;
  config.width = 160;
  config.height = 90;
  config.loop = false;
  int frames = 0;
  while (frames < kMostFrames && source.capture(config, kPatience, error) != nullptr) {
    ++frames;
  }
  return frames;
}

}  // namespace

int main(int argc, char** argv) {
  if (argc != 3) {
    std::fprintf(stderr, "usage: take-picture still|media FILE\n");
    return 2;
  }
  const std::string path = argv[2];
  std::string error;
  int pictures = 0;
  try {
    pictures = argv[1] == std::string("still") ? takeStill(path, error) : takeFrames(path, error);
  } catch (const std::bad_alloc&) {
    error = "out of memory";  // as documented
  }
  std::printf("%d %s\n", pictures, error.c_str());
  return pictures > 0 || !error.empty() ? 0 : 3;  // 3: a file without a picture, or no picture yet
}
