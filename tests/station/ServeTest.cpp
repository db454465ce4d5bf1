// What both servers have in common: how they fail, and who may come in.

#include <gtest/gtest.h>

#include <algorithm>
#include <fstream>
#include <tuple>

#include "Program.h"
#include "Server.h"
#include "support/TempFolder.h"

namespace {

TEST(Serve, FailuresAreOneLine) {
  const TempFolder folder;
  const std::string clip = makeServedClip(folder);
  const Server other("http", {"--board", "imx"});
  const std::string taken = other.url().substr(other.url().rfind(':') + 1);
  std::ofstream(folder / "empty") << "\n";
  using Arguments = std::vector<std::string>;
  const std::tuple<Arguments, int, const char*> rows[] = {
      {{clip, "--port", taken}, 10, "cannot serve on 127.0.0.1 port "},
      {{clip, "--codec", "av1"}, 4, "codec not usable for "},
      {{clip, "--bind", "192.0.2.1"}, 10, "cannot serve on 192.0.2.1 port "},
      {{"/nowhere/clip.mkv"}, 5, "source failed: "},
      {{clip, "--bind", "localhost"}, 2, "not a numeric address: localhost"},
      {{clip, "--auth", "me"}, 2, "--auth takes USER:FILE, not \"me\""},
      {{clip, "--auth", "me:/nowhere"}, 2, "password file /nowhere: No such file or directory"},
      {{clip, "--auth", "me:" + folder / "empty"}, 2, "no password on the first line of "},
  };
  const Result path = run(station({"serve", "rtsp", clip, "--board", "imx", "--path", "door"}));
  EXPECT_EQ(path.exitCode, 2);
  EXPECT_NE(path.err.find("--path: the path has to begin with /"), std::string::npos) << path.err;
  for (const std::string kind : {"rtsp", "http"}) {
    for (const auto& [arguments, exitCode, text] : rows) {
      const Result result = run(station({"serve", kind, "--board", "imx"}, arguments));
      EXPECT_EQ(result.exitCode, exitCode) << kind << text;
      EXPECT_EQ(result.err.rfind(std::string("media-station: ") + text, 0), 0U) << result.err;
      EXPECT_EQ(std::count(result.err.begin(), result.err.end(), '\n'), 1) << result.err;
    }
  }
}

TEST(Serve, ThePasswordOpens) {
  const TempFolder folder;
  std::ofstream(folder / "password") << "se:cret\r\nsecond line\n";
  const std::vector<std::string> options = {"--board", "imx", "--auth",
                                            "me:" + folder / "password"};
  Server rtsp("rtsp", options);
  Server http("http", options);
  const std::string rtspRest = rtsp.url().substr(7);
  const std::tuple<const char*, bool> rows[] = {
      {"", false},
      {"me:se:cret@", true},
      {"me:secret@", false},
      {"you:se:cret@", false},
      {"me:se:cret%0D@", false},
      {"me:@", false},
  };
  for (const auto& [login, opens] : rows) {
    // ffprobe takes what is behind the last colon for a port: none in its password.
    std::string user = login;
    const Result page = run({"curl", "-sS", "-o", "/dev/null", "-w", "%{http_code}",
                             "http://" + user + http.url().substr(7) + "/status.json"});
    EXPECT_EQ(page.out, opens ? "200" : "401") << login;
    const Result stream = run({"ffprobe", "-v", "error", "-rtsp_transport", "tcp", "-show_entries",
                               "stream=codec_name", "-of", "csv=p=0", "rtsp://" + user + rtspRest});
    EXPECT_EQ(stream.out, opens ? "h264\n" : "") << login << stream.err;
    EXPECT_EQ(stream.err.find("401 Unauthorized") != std::string::npos, !opens) << stream.err;
  }
  rtsp.stop();
  http.stop();
}

TEST(Serve, CameraRunsOnlyWhileSomebodyWatches) {
  Server rtsp("rtsp", {"--board", "nvidia", "--path", "/door"});
  Server http("http", {"--board", "imx"});
  const std::pair<Server&, std::string> rows[] = {{rtsp, rtsp.url()},
                                                  {http, http.url() + "/stream.h264"}};
  for (const auto& [server, url] : rows) {
    for (int i = 0; i < 2; ++i) {
      const Result result = run(
          {"ffprobe", "-v", "error", "-show_entries", "stream=codec_name", "-of", "csv=p=0", url});
      EXPECT_EQ(result.out, "h264\n") << result.err;
      server.awaitLine("camera runs");
      server.awaitLine("camera sleeps");
    }
    server.stop();
  }
}

}  // namespace
