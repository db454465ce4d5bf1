// The guide's media server between the station and a browser. Runs in scripts/test --long.

#include <gtest/gtest.h>

#include <csignal>
#include <fstream>

#include "Browser.h"
#include "Server.h"
#include "support/TempFolder.h"

namespace {

// Begins Janus with the RTSP stream as its mountpoint 1.
std::vector<std::string> configureJanus(const TempFolder& folder, const std::string& port,
                                        const std::string& stream) {
  std::ofstream(folder / "janus.jcfg") << "general: {}\n";
  std::ofstream(folder / "janus.transport.http.jcfg")
      << "general: { http = true, ip = \"127.0.0.1\", port = " << port
      << ", base_path = \"/janus\" }\n";
  std::ofstream(folder / "janus.plugin.streaming.jcfg")
      << "camera: { type = \"rtsp\", id = 1, video = true, url = \"" << stream << "\" }\n";
  return {"stdbuf", "-oL", "janus", "-F", folder / "", "-C", folder / "janus.jcfg"};
}

TEST(FanOut, JanusGivesTheStreamToABrowser) {
  if (!Browser::isInstalled() || run({"sh", "-c", "command -v janus"}).exitCode != 0) {
    GTEST_SKIP() << "no Janus, Chromium or chromedriver: fan-out not tried";
  }
  const TempFolder folder;
  Server server("rtsp", {"--board", "imx"});
  const std::string port =
      run({"python3", "-c",
           "import socket; print(socket.create_server(('127.0.0.1', 0)).getsockname()[1], end='')"})
          .out;
  Program janus(configureJanus(folder, port, server.url()));
  bool pulls = false;
  for (int lines = 0; lines < 200 && !pulls; ++lines) {
    pulls = janus.readLine().find("New video stream") != std::string::npos;
  }
  ASSERT_TRUE(pulls);
  Browser browser;
  browser.open("file://" TEST_SOURCES "/../../docs/guides/fan-out/viewer.html?http://127.0.0.1:" +
               port + "/janus#1");
  const nlohmann::json seen = browser.evaluate(R"(
      const video = document.getElementById("video"), end = Date.now() + 15000;
      (function look() {
        const frames = video.getVideoPlaybackQuality().totalVideoFrames;
        frames > 30 || Date.now() > end ? done([document.getElementById("state").textContent, video.videoWidth, frames > 30]) : setTimeout(look, 50);
      })();)");
  EXPECT_EQ(seen, nlohmann::json({"connected", 320, true}));
  janus.signal(SIGTERM);
  janus.wait();
  server.stop();
}

}  // namespace
