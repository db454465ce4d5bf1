#pragma once

#include <string>
#include <vector>

#include "Program.h"
#include "support/TempFolder.h"

// Share of the frames that arrive in time on a busy machine, whose cameras drop the others.
#if defined(EMULATED)
constexpr double kLeastShare = 0.05;
#else
constexpr double kLeastShare = 0.5;
#endif

// `media-station serve` on a simulated board and a port of its own, showing `source`: by default a
// moving clip of 320 x 180 at 30 frames per second, small, so that encoders keep up on a busy
// machine.
class Server {
 public:
  // `kind`: "rtsp" or "http". Fails the test if the server does not start.
  Server(const std::string& kind, const std::vector<std::string>& more,
         const std::string& source = "");

  // "rtsp://127.0.0.1:1234/camera"; HTTP without the last slash.
  const std::string& url() const { return url_; }

  // Waits for a line of this text on standard error, after those already read.
  void awaitLine(const std::string& line) { program_.awaitErrorLine(line); }

  // Ctrl-C; the exit code has to be 0. Returns the rest of its standard error.
  std::string stop();

 private:
  TempFolder folder_;
  Program program_;
  std::string url_;
};

// Makes the clip that servers show.
std::string makeServedClip(const TempFolder& folder);
