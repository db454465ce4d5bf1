#include "Server.h"

#include <gtest/gtest.h>

#include <csignal>
#include <regex>

#include "support/Clip.h"

std::string makeServedClip(const TempFolder& folder) {
  const std::string clip = folder / "clip \xff.mkv";  // file names need not be UTF-8
  makeClip(clip, "320x180", 30, 60);
  return clip;
}

Server::Server(const std::string& kind, const std::vector<std::string>& more,
               const std::string& source)
    : program_(
          station({"serve", kind, source.empty() ? makeServedClip(folder_) : source, "--port", "0"},
                  more)) {
  const std::string line = program_.readLine();
  std::smatch match;
  if (!std::regex_search(line, match, std::regex("(rtsp|http)s?://[0-9.:]+(/\\w+)?"))) {
    ADD_FAILURE() << "the server says: " << line << program_.wait().err;
  }
  url_ = match[0];
}

std::string Server::stop() {
  program_.signal(SIGINT);
  const Result result = program_.wait();
  EXPECT_EQ(result.exitCode, 0) << result.err;
  return result.err;
}
