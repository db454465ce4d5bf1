// The page as a browser shows it.

#include <gtest/gtest.h>

#include <cmath>

#include "Browser.h"
#include "Server.h"
#include "support/Clip.h"
#include "support/TempFolder.h"

using nlohmann::json;

namespace {

using Words = std::vector<std::string>;

class ServeHttpPage : public testing::Test {
 protected:
  void SetUp() override {
    if (!Browser::isInstalled()) {
      GTEST_SKIP() << "no Chromium with chromedriver: page not looked at";
    }
  }
};

void expectTexts(const std::string& page, const Words& texts) {
  for (const std::string& text : texts) {
    EXPECT_NE(page.find(text), std::string::npos) << text << page;
  }
}

// Video where the browser plays it, else JPEG pictures where the board encodes them.
TEST_F(ServeHttpPage, ShowsTheLivePictureIfThereIsOne) {
  const std::tuple<const char*, const char*, Words> rows[] = {
      {"nvidia",
       "mjpeg",
       {"profile\">nvidia-nvmm<", "codec\">mjpeg<", "viewers\">1 of 32<",
        "Live, 320 × 180, motion JPEG", "role=\"status\">live<"}},
      {"nvvidconv,nvv4l2h264enc", "h264", {"codec\">h264<", "Live, 320 × 180, H264", "0 shown, "}},
      {"nvidia",
       "av1",
       {"Live, 320 × 180, AV1", "0 shown, ", "<button id=\"sound\" type=\"button\">Sound on<"}},
      {"imx", "h265", {"codec\">mjpeg<", "Live, 320 × 180, motion JPEG"}},
      {"nvvidconv,nvv4l2h265enc", "h265", {"codec\">h265<", "no JPEG encoder", "hidden=\"\""}},
  };
  Browser browser;
  for (const auto& [board, codec, texts] : rows) {
    Server server("http", {"--board", board, "--codec", codec, "--mic", "test"});
    browser.open(server.url());
    expectTexts(browser.awaitTexts(texts), texts);
    server.stop();
  }
  const Words gone = {"The server does not answer.", "hidden=\"\"", ">connection lost<"};
  expectTexts(browser.awaitTexts(gone), gone);
}

// A clip of 256 frames with their numbers: eight squares, black or white, the lowest bit on the
// left.
std::string makeNumberedClip(const TempFolder& folder) {
  std::string squares = "null";
  for (int bit = 0; bit < 8; ++bit) {
    const std::string square =
        ",drawbox=w=40:h=40:y=0:x=" + std::to_string(40 * bit) + ":t=fill:color=";
    squares += square + "black" + square + "white:enable='mod(floor(n/" + std::to_string(1 << bit) +
               "),2)'";
  }
  makeClip(folder / "numbered.mkv", "320x180", 30, 256, {"-vf", squares});
  return folder / "numbered.mkv";
}

// Watches for two seconds. Returns the median delay by the number in the picture and the count of
// the camera's frames, that by the page, how near to the newest frame the video comes, in ms, and
// decoded bytes of sound.
constexpr const char* kWatch = R"(
  const video = document.getElementById("video");
  const canvas = Object.assign(document.createElement("canvas"), { width: 320, height: 180 });
  const context = canvas.getContext("2d", { willReadFrequently: true });
  const median = (list) => list.sort((one, other) => one - other)[list.length >> 1];
  const given = new Map(), delays = [], paged = [], ahead = [];
  function onFrame(now, frame) {
    context.drawImage(video, 0, 0);
    let number = 0;
    for (let bit = 0; bit < 8; ++bit)
      number += (context.getImageData(40 * bit + 20, 20, 1, 1).data[0] > 128) << bit;
    if (given.has(number)) {
      delays.push(frame.expectedDisplayTime - given.get(number));
      paged.push(parseInt(document.getElementById("delay").textContent));
      ahead.push(1000 * (video.buffered.end(video.buffered.length - 1) - video.currentTime));
    }
    video.requestVideoFrameCallback(onFrame);
  }
  video.requestVideoFrameCallback(onFrame);
  (async () => {
    for (const end = performance.now() + 3000; performance.now() < end; ) {
      const status = await (await fetch("/status.json")).json();
      const number = (status.camera.frames - 1) % 256;
      if (!given.has(number)) given.set(number, performance.now());
      await new Promise((resolve) => setTimeout(resolve, 10));
    }
    done({ frames: delays.length, delay: median(delays), page: median(paged), ahead: Math.min(...ahead),
           sound: video.webkitAudioDecodedByteCount });
  })();)";

TEST_F(ServeHttpPage, StaysAtTheLiveEdgeAndSaysHowFarBehindTheCamera) {
  const TempFolder folder;
  Server server("http", {"--board", "imx", "--codec", "h264", "--mic", "test"},
                makeNumberedClip(folder));
  Browser browser;
  browser.open(server.url());
  const Words begun = {"0 shown", " ms<", "<button id=\"sound\" type=\"button\">Sound on<"};
  expectTexts(browser.awaitTexts(begun), begun);
  browser.click("#sound");
  const json before = browser.evaluate(kWatch);
  browser.evaluate("find('pause').click(); setTimeout(() => done(find('pause').click()), 2000);");
  const json after = browser.evaluate(kWatch);
  for (const json& watched : {before, after}) {
    EXPECT_GT(watched["frames"], 10) << watched;
    EXPECT_NEAR(watched["delay"], watched["page"], 150) << watched;
    EXPECT_LT(watched["ahead"], 300) << watched;
    EXPECT_GT(watched["sound"], 0) << watched;
  }
  EXPECT_LT(std::abs(after["delay"].get<double>() - before["delay"].get<double>()), 1000) << after;
  // After a part that cannot be decoded, the page begins again.
  EXPECT_EQ(
      browser.evaluate("const broken = player;"
                       "broken.queue.push(new Uint8Array(1000).fill(255));"
                       "setInterval(() => {"
                       "  if (player && player !== broken && video.currentTime > 0) done(true);"
                       "}, 50);"),
      true);
  server.stop();
}

}  // namespace
