#include "Server.h"

#include <gtest/gtest.h>

#include <csignal>
#include <filesystem>
#include <fstream>
#include <regex>
#include <system_error>

#include "support/Command.h"
#include "support/ProcessState.h"

namespace {

std::vector<std::string> command(const std::string& kind, const std::string& clip,
                                 const std::vector<std::string>& more) {
  std::vector<std::string> arguments =
      station({"serve", kind, clip, "--port", "0", "--width", "320", "--height", "180"});
  arguments.insert(arguments.end(), more.begin(), more.end());
  return arguments;
}

}  // namespace

std::string makeClip(const TempFolder& folder) {
  const std::string clip = folder / "clip.mkv";
  runCommand({"ffmpeg", "-v", "error", "-f", "lavfi", "-i",
              "testsrc2=size=320x180:rate=30:duration=2", "-c:v", "libx264", "-preset", "ultrafast",
              clip});
  return clip;
}

Server::Server(const std::string& kind, const std::vector<std::string>& more)
    : program_(command(kind, makeClip(folder_), more)) {
  const std::string line = program_.readLine();
  std::smatch match;
  if (!std::regex_search(line, match, std::regex("(rtsp|http)://127.0.0.1:([0-9]+)(/\\w+)?"))) {
    ADD_FAILURE() << "the server says: " << line << program_.wait().err;
    return;
  }
  url_ = match[0];
  port_ = std::stoi(match[2]);
}

std::ptrdiff_t Server::descriptors() const {
  std::ptrdiff_t count = 0;
  for (const auto& entry : std::filesystem::directory_iterator("/proc/" + program_.pid() + "/fd")) {
    std::error_code closed;
    const std::string target = std::filesystem::read_symlink(entry, closed);
    count += !closed && target.rfind("/memfd:lumora-frame", 0) != 0 ? 1 : 0;
  }
  return count;
}

std::ptrdiff_t Server::threads() const {
  return entriesOf(("/proc/" + program_.pid() + "/task").c_str());
}

long Server::memory() const {
  std::ifstream stream("/proc/" + program_.pid() + "/status");
  for (std::string word; stream >> word;) {
    if (word == "VmRSS:") {
      long kilobytes = 0;
      stream >> kilobytes;
      return kilobytes * 1024;
    }
  }
  return 0;
}

void Server::stop() {
  program_.signal(SIGINT);
  const Result result = program_.wait();
  EXPECT_EQ(result.exitCode, 0) << result.err;
}
