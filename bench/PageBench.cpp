// From the camera to the page in a browser: every picture of 1280 x 720 carries the time at which
// it was made, which a script in the page reads from what is shown before each of the page's
// animation frames. Fragmented MP4 of H.264 beside motion JPEG, in turn, of one server.
// PAGE_SECONDS, 20 if not set, is how long each is watched.

#include <algorithm>
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <stdexcept>
#include <string>
#include <thread>

#include <benchmark/benchmark.h>
#include <nlohmann/json.hpp>

#include "PageServer.h"
#include "Ratios.h"
#include "station/Browser.h"

namespace {

using nlohmann::json;

// By intent, MP4 takes two frame times in the muxer and 0.1 s of pictures in reserve.
constexpr double kAim = 3;
constexpr std::chrono::seconds kSettle{5};
const std::vector<Ratio> kRatios = {
    {"page: delay of MP4 / of motion JPEG", "mp4", "mjpeg", kAim},
};

// Begins to watch: each picture that is new counts once, with its age.
constexpr const char* kBegin = R"(
  const picture = video.hidden ? find("picture") : video;
  const canvas = Object.assign(document.createElement("canvas"), { width: 40, height: 1 });
  const context = canvas.getContext("2d", { willReadFrequently: true });
  context.imageSmoothingEnabled = false;
  const { totalVideoFrames, droppedVideoFrames } = video.getVideoPlaybackQuality();
  window.seen = { ages: [], totalVideoFrames, droppedVideoFrames };
  let last = null;
  (function look() {
    const now = 1000 * Date.now();
    context.drawImage(picture, 0, 0, 1280, 32, 0, 0, 40, 1);
    const { data } = context.getImageData(0, 0, 40, 1);
    let time = 0;
    for (let bit = 0; bit < 40; ++bit) if (data[4 * bit] > 128) time += 2 ** bit;
    if (last !== null && time !== last) seen.ages.push((now % 2 ** 40 - time) / 1e6);
    last = time;
    requestAnimationFrame(look);
  })();
  done();)";

constexpr const char* kEnd = R"(
  const ages = seen.ages.sort((one, other) => one - other);
  const quantile = (share) => ages[Math.round(share * (ages.length - 1))];
  const { totalVideoFrames, droppedVideoFrames } = video.getVideoPlaybackQuality();
  done({ shown: ages.length, decoded: totalVideoFrames - seen.totalVideoFrames,
         dropped: droppedVideoFrames - seen.droppedVideoFrames,
         median: quantile(0.5), ninetieth: quantile(0.9) });)";

std::chrono::seconds watchTime() {
  const char* const text = std::getenv("PAGE_SECONDS");
  return std::chrono::seconds(text != nullptr ? std::max(std::atoi(text), 1) : 20);
}

std::string g_url;

json watchPage(bool isMp4) {
  Browser browser;
  browser.open(g_url);
  if (!isMp4) {  // as in a browser that cannot play it
    browser.evaluate("unplayable = true; stopWatching(\"\"); done();");
  }
  const std::string name = isMp4 ? "720, H264" : "720, motion JPEG";
  if (browser.awaitTexts({name}).find(name) == std::string::npos) {
    throw std::runtime_error("the page does not show " + name);
  }
  std::this_thread::sleep_for(kSettle);
  browser.evaluate(kBegin);
  std::this_thread::sleep_for(watchTime());
  return browser.evaluate(kEnd);
}

void report(benchmark::State& state, const json& seen) {
  const auto value = [&seen](const char* key) { return seen.at(key).get<double>(); };
  const auto seconds = static_cast<double>(watchTime().count());
  state.SetIterationTime(value("median"));
  state.counters["ms, half of the pictures"] = 1000 * value("median");
  state.counters["ms, nine of ten"] = 1000 * value("ninetieth");
  state.counters["pictures shown a second"] = value("shown") / seconds;
  if (value("decoded") > 0) {
    state.counters["frames dropped a minute"] = 60 * value("dropped") / seconds;
  }
}

void watch(benchmark::State& state, bool isMp4) {
  for (auto _ : state) {
    try {
      const json seen = watchPage(isMp4);
      std::fprintf(stderr, "%s: %s\n", isMp4 ? "mp4" : "mjpeg", seen.dump().c_str());
      report(state, seen);
    } catch (const std::exception& error) {
      state.SkipWithError(error.what());
    }
  }
}

}  // namespace

BENCHMARK_CAPTURE(watch, mp4, true)->Name("mp4")->Iterations(1)->UseManualTime();
BENCHMARK_CAPTURE(watch, mjpeg, false)->Name("mjpeg")->Iterations(1)->UseManualTime();

int main(int argc, char** argv) {
  if (!Browser::isInstalled()) {
    std::fprintf(stderr, "no Chromium with chromedriver\n");
    return EXIT_FAILURE;
  }
  return servePage([&](const std::string& url) {
    g_url = url;
    return runAndCompare(argc, argv, kRatios);
  });
}
