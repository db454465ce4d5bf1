// Takes pictures out of files, as a camera that has been given them: for files that are broken.
//
// Usage: take-picture
// Reads lines "still FILE" or "media FILE". Each file has a process of its own, which begins with
// the libraries loaded. Answers a line with what waitpid() told of it, and what it printed: the
// number of pictures and the error, where it has not come to grief.

#include <algorithm>
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <iostream>
#include <new>
#include <string>

#include <media_backend/MediaFileFrameSource.h>
#include <media_backend/StillImageFrameSource.h>
#include <sys/wait.h>
#include <unistd.h>

namespace {

constexpr unsigned kSeconds = 60;  // for a file, with all processors busy
constexpr int kMostFrames = 10;
constexpr std::chrono::milliseconds kPatience{500};

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

int take(const std::string& kind, const std::string& path) {
  std::string error;
  int pictures = 0;
  try {
    pictures = kind == "still" ? takeStill(path, error) : takeFrames(path, error);
  } catch (const std::bad_alloc&) {
    error = "out of memory";  // as documented
  }
  std::printf("%d %s\n", pictures, error.c_str());
  return pictures > 0 || !error.empty() ? 0 : 3;  // 3: a file without a picture, or no picture yet
}

std::string readAll(int fd) {
  std::string text;
  char buffer[4096];
  for (ssize_t count; (count = read(fd, buffer, sizeof(buffer))) > 0;) {
    text.append(buffer, static_cast<std::size_t>(count));
  }
  return text;
}

}  // namespace

int main() {
  for (std::string kind, path; std::cin >> kind && std::getline(std::cin >> std::ws, path);) {
    int ends[2];
    if (pipe(ends) != 0) {
      return EXIT_FAILURE;
    }
    const pid_t child = fork();
    if (child == 0) {
      alarm(kSeconds);
      dup2(ends[1], STDOUT_FILENO);
      dup2(ends[1], STDERR_FILENO);
      close(ends[0]);
      close(ends[1]);
      exit(take(kind, path));
    }
    close(ends[1]);
    std::string printed = readAll(ends[0]);
    close(ends[0]);
    int status = -1;
    waitpid(child, &status, 0);
    std::replace(printed.begin(), printed.end(), '\n', ' ');
    std::cout << status << ' ' << printed << std::endl;
  }
  return EXIT_SUCCESS;
}
