// One media file source and one still image source that are given other files and sizes all the
// time, as by a host that switches its cameras.
//
// Usage: switch-sources IMAGE FILE...
// For every line "SECONDS SEED" on standard input it goes on switching for so long, at 30 pictures
// per second, and then stops the source. Each switch prints how many milliseconds the first picture
// took, each line ends with "rest PICTURES SWITCHES", the counts so far. Exits with 1 if a picture
// does not come, or has not the size that was asked for.

#include <chrono>
#include <cstdio>
#include <random>
#include <string>
#include <thread>
#include <vector>

#include <media_backend/GstNv12Sample.h>
#include <media_backend/MediaFileFrameSource.h>
#include <media_backend/StillImageFrameSource.h>

namespace {

using Clock = std::chrono::steady_clock;

constexpr std::chrono::seconds kPatience{20};
constexpr std::chrono::nanoseconds kFrameTime{33333333};
constexpr std::size_t kMostFrames = 30;
constexpr std::uint32_t kSizes[][2] = {{160, 90}, {320, 180}, {426, 240}, {640, 360}};

class Switcher {
 public:
  Switcher(std::string image, std::vector<std::string> files)
      : image_{std::move(image)}, files_(std::move(files)) {}

  bool run(std::chrono::seconds duration, unsigned int seed) {
    std::mt19937 random(seed);
    const Clock::time_point end = Clock::now() + duration;
    while (Clock::now() < end) {
      if (!(random() % 5 == 0 ? showImage() : showFile(random))) {
        return false;
      }
    }
    media_.stop();
    std::printf("rest %lu %lu\n", pictures_, switches_);
    return std::fflush(stdout) == 0;
  }

 private:
  bool showImage() {
    const Clock::time_point begin = Clock::now();
    std::string error;
    const auto picture = still_.load(image_, error);
    return count(begin, picture != nullptr, error);
  }

  bool showFile(std::mt19937& random) {
    media_backend::MediaFileFrameSourceConfig config;
    config.path = files_[random() % files_.size()];
    const auto& size = kSizes[random() % std::size(kSizes)];
    config.width = size[0];
    config.height = size[1];
    const std::size_t frames = 1 + random() % kMostFrames;
    Clock::time_point due = Clock::now();
    for (std::size_t frame = 0; frame < frames; ++frame) {
      std::string error;
      const Clock::time_point begin = Clock::now();
      const auto picture = media_.capture(config, kPatience, error);
      const bool right = picture != nullptr && picture->width() == config.width &&
                         picture->height() == config.height;
      if (frame == 0 || !right) {
        if (!count(begin, right, config.path + " " + error)) {
          return false;
        }
      } else {
        ++pictures_;
      }
      due += kFrameTime;
      std::this_thread::sleep_until(due);
    }
    return true;
  }

  bool count(Clock::time_point begin, bool right, const std::string& what) {
    if (!right) {
      std::fprintf(stderr, "switch %lu: no such picture: %s\n", switches_, what.c_str());
      return false;
    }
    ++pictures_;
    ++switches_;
    std::printf("%.2f\n", std::chrono::duration<double, std::milli>(Clock::now() - begin).count());
    return std::fflush(stdout) == 0;
  }

  const media_backend::StillImageFrameSourceConfig image_;
  const std::vector<std::string> files_;
  media_backend::MediaFileFrameSource media_;
  const media_backend::StillImageFrameSource still_{};
  unsigned long pictures_ = 0;
  unsigned long switches_ = 0;
};

}  // namespace

int main(int argc, char** argv) {
  if (argc < 3) {
    std::fprintf(stderr, "usage: switch-sources IMAGE FILE...\n");
    return 2;
  }
  media_backend::gst_source::ensure_initialized();
  Switcher switcher(argv[1], {argv + 2, argv + argc});
  unsigned int seconds = 0;
  unsigned int seed = 0;
  while (std::scanf("%u %u", &seconds, &seed) == 2) {
    if (!switcher.run(std::chrono::seconds(seconds), seed)) {
      return 1;
    }
  }
  return 0;
}
