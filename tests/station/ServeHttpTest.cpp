// HTTP as clients see it: curl, ffprobe, Chromium, and clients that do not behave.

#include <gtest/gtest.h>

#include <algorithm>
#include <atomic>
#include <chrono>
#include <fstream>
#include <list>
#include <nlohmann/json.hpp>
#include <numeric>
#include <thread>

#include "Connection.h"
#include "Program.h"
#include "Server.h"
#include "support/TempFolder.h"

using nlohmann::json;

namespace {

using std::chrono::milliseconds;
using std::chrono::seconds;

// Pictures that a client sees come in `duration`, behind a first second: a stream begins with what
// there is since the last key picture. Access unit delimiters are counted.
unsigned int picturesIn(int port, milliseconds duration) {
  Connection client(port);
  client.get("/stream.h264");
  const std::string delimiter("\0\0\0\1\x09", 5);
  const auto begin = std::chrono::steady_clock::now() + seconds(1);
  unsigned int pictures = 0;
  std::string rest;
  while (std::chrono::steady_clock::now() < begin + duration) {
    const std::string bytes = client.receive();
    if (bytes.empty()) {
      ADD_FAILURE() << "the stream ended";
      return 0;
    }
    rest += bytes;
    std::size_t place = 0;
    for (std::size_t found; (found = rest.find(delimiter, place)) != std::string::npos;) {
      place = found + delimiter.size();
      pictures += std::chrono::steady_clock::now() >= begin ? 1U : 0U;
    }
    rest.erase(0, std::max(place, rest.size() - std::min(rest.size(), delimiter.size() - 1)));
  }
  return pictures;
}

json status(const Server& server) {
  return json::parse(run({"curl", "-sS", server.url() + "/status.json"}).out);
}

// The server sees a client's end when it writes to it.
void awaitViewers(const Server& server, int count) {
  for (int i = 0; i < 50 && status(server)["streams"][0]["viewers"] != count; ++i) {
    std::this_thread::sleep_for(milliseconds(100));
  }
  EXPECT_EQ(status(server)["streams"][0]["viewers"], count);
}

struct Stream {
  const char* board;
  const char* codec;
  const char* file;
  const char* ffmpegName;
};

void PrintTo(const Stream& stream, std::ostream* out) {
  *out << stream.board << ' ' << stream.codec;
}

class ServeHttp : public testing::TestWithParam<Stream> {};

// The second client joins in mid-stream, and its pictures decode from the first on.
TEST_P(ServeHttp, StreamsDecodeFromTheirFirstPicture) {
  const Stream& stream = GetParam();
  const TempFolder folder;
  Server server("http", {"--board", stream.board, "--codec", stream.codec});
  Program first(
      {"curl", "-sS", "--max-time", "6", "-o", folder / "first", server.url() + "/" + stream.file});
  server.awaitLine("camera runs");
  std::this_thread::sleep_for(milliseconds(1500));
  run({"curl", "-sS", "--max-time", "3", "-o", folder / "second",
       server.url() + "/" + stream.file});
  first.wait();
  for (const char* const file : {"first", "second"}) {
    const Result result =
        run({"ffprobe", "-v", "error", "-f", stream.ffmpegName, "-count_frames", "-show_entries",
             "stream=nb_read_frames", "-of", "csv=p=0", folder / file});
    EXPECT_EQ(result.exitCode, 0) << result.err;
    EXPECT_GE(std::stoi("0" + result.out), 75 * kLeastShare) << file;
    // Only the last picture may be cut.
    EXPECT_LE(std::count(result.err.begin(), result.err.end(), '\n'), 2) << result.err;
  }
  server.stop();
}

INSTANTIATE_TEST_SUITE_P(Codecs, ServeHttp,
                         testing::Values(Stream{"imx", "h264", "stream.h264", "h264"},
                                         Stream{"nvidia", "h265", "stream.h265", "hevc"},
                                         Stream{"nvidia", "av1", "stream.obu", "obu"},
                                         Stream{"imx", "mjpeg", "stream.mjpeg", "mpjpeg"}),
                         [](const auto& instance) { return std::string(instance.param.codec); });

TEST(ServeHttpPaths, AnswerAsDescribed) {
  Server server("http", {"--board", "imx", "--codec", "h264"});
  const std::tuple<const char*, const char*, const char*, const char*> rows[] = {
      {"GET", "/", "200 text/html; charset=utf-8", "media-station"},
      {"GET", "/snapshot.jpg", "200 image/jpeg", "\xff\xd8\xff"},
      {"GET", "/status.json", "200 application/json", "\"profile\": \"dmabuf-nv12-vpu\""},
      {"GET", "/metrics", "200 text/plain; version=0.0.4; charset=utf-8",
       "\nmedia_station_viewers{codec=\"h264\"} 0\n"},
      {"HEAD", "/stream.h264", "200 video/h264", ""},
      {"POST", "/", "405 text/plain; charset=utf-8", "only GET and HEAD"},
      {"GET", "/stream.h265", "404 text/plain; charset=utf-8", "nothing is served"},
      {"GET", "/../../../../etc/passwd", "404 text/plain; charset=utf-8", "nothing is served"},
      {"GET", "/%2e%2e/%2e%2e/etc/passwd", "404 text/plain; charset=utf-8", "nothing is served"},
      {"GET", "//etc/passwd", "404 text/plain; charset=utf-8", "nothing is served"},
  };
  for (const auto& [method, path, answer, content] : rows) {
    const TempFolder folder;
    std::vector<std::string> command = {"curl",
                                        "-sS",
                                        "--path-as-is",
                                        "-o",
                                        folder / "body",
                                        "-w",
                                        "%{http_code} %{content_type}",
                                        server.url() + path};
    if (std::string(method) == "HEAD") {
      command.insert(command.begin() + 1, "-I");
    } else {
      command.insert(command.begin() + 1, {"-X", method});
    }
    EXPECT_EQ(run(command).out, answer) << method << path;
    std::ifstream stream(folder / "body");
    const std::string body{std::istreambuf_iterator<char>(stream), {}};
    EXPECT_NE(body.find(content), std::string::npos) << method << path;
  }
  server.stop();
}

// What the server library would keep the memory of, whose loss address sanitizers report.
TEST(ServeHttpPaths, ABodyOfNoKnownLengthIsRefusedHoweverItComes) {
  Server server("http", {"--board", "imx", "--codec", "h264"});
  const std::tuple<std::string, const char*, const char*> rows[] = {
      {"X: Transfer-Encoding: x\r\nTRANSFER-", "encoding: x\r\n\r\n", "501"},
      {"Transfer-Encoding: chunked\r\n", "\r\n0\r\n\r\n", "501"},
      {"Content-Length", ": 1x\r\n\r\n", "501"},
      {"Content-Length: 1\r\n", " x\r\n\r\n", "501"},
      {std::string("Transfer-\0Enco", 14), "ding: x\r\n\r\n", "501"},
      {"Content-Length: 0 \r", "\n\r\n", "200"},
  };
  for (const auto& [begin, end, answer] : rows) {
    Connection client(server.port());
    client.send("GET / HTTP/1.1\r\nHost: a\r\n" + begin);
    std::this_thread::sleep_for(milliseconds(50));  // else one piece
    client.send(end);
    EXPECT_EQ(client.receive().substr(0, 12), std::string("HTTP/1.1 ") + answer) << begin << end;
  }
  server.stop();
}

TEST(ServeHttpPage, ShowsTheLivePicture) {
  // chromedriver talks to Chromium by that name.
  if (run({"sh", "-c", "command -v chromium && command -v chromedriver && getent hosts localhost"})
          .exitCode != 0) {
    GTEST_SKIP() << "no Chromium with chromedriver, or no name localhost: page not looked at";
  }
  const TempFolder folder;
  Server server("http", {"--board", "nvidia", "--codec", "mjpeg"});
  const Result result =
      run({TEST_SOURCES "/look-at-page", server.url() + "/", folder.path().string()});
  ASSERT_EQ(result.exitCode, 0) << result.err;
  const json seen = json::parse(result.out);
  EXPECT_EQ(seen["console"], json::array());
  EXPECT_EQ(seen["figures"]["profile"], "nvidia-nvmm");
  EXPECT_EQ(seen["figures"]["codec"], "mjpeg");
  EXPECT_EQ(seen["figures"]["viewers"], "1 of 32");
  EXPECT_NE(run({"cmp", folder / "first.png", folder / "second.png"}).exitCode, 0);
  server.stop();
}

// Half of the clients never read: they lose whole pictures, and nobody else does.
TEST(ServeHttpLoad, StalledClientsHoldNobodyUp) {
  constexpr milliseconds kDuration(5000);
  constexpr int kEach = 25;
  Server server("http", {"--board", "imx", "--codec", "h264", "--max-clients", "60"});
  const unsigned int alone = picturesIn(server.port(), kDuration);
  const long memoryBefore = server.memory();

  std::list<Connection> stalled;
  for (int i = 0; i < kEach; ++i) {
    stalled.emplace_back(server.port()).get("/stream.h264");
  }
  std::vector<unsigned int> pictures(kEach);
  std::vector<std::thread> readers;
  readers.reserve(kEach);
  for (unsigned int& count : pictures) {
    readers.emplace_back([&] { count = picturesIn(server.port(), kDuration); });
  }
  for (std::thread& reader : readers) {
    reader.join();
  }
  EXPECT_GE(*std::min_element(pictures.begin(), pictures.end()), 0.95 * alone);
  // For each client a picture and what the server library keeps; in the kernel there is more.
  EXPECT_LT(server.memory() - memoryBefore, 64 * 1024 * 1024);
  awaitViewers(server, kEach);
  server.stop();
}

// A client that reads again after a pause gets whole pictures, from a key picture on.
TEST(ServeHttpLoad, AStalledClientGoesOnAtAKeyPicture) {
  const TempFolder folder;
  Server server("http", {"--board", "nvidia", "--codec", "h264", "--bitrate", "20000000"});
  Connection client(server.port());
  client.get("/stream.h264");
  while (status(server)["streams"][0]["frames"] < 300) {
    std::this_thread::sleep_for(milliseconds(200));
  }
  std::string received;
  const auto end = std::chrono::steady_clock::now() + seconds(3);
  while (std::chrono::steady_clock::now() < end) {
    received += client.receive();
  }
  EXPECT_GT(status(server)["streams"][0]["skipped"], 30);
  received.erase(0, received.find("\r\n\r\n") + 4);
  received.resize(received.rfind(std::string("\0\0\0\1\x09", 5)));
  std::ofstream(folder / "all.h264") << received;
  const Result result =
      run({"ffmpeg", "-v", "error", "-i", folder / "all.h264", "-f", "null", "-"});
  EXPECT_EQ(result.exitCode, 0);
  EXPECT_EQ(result.err, "");
  server.stop();
}

TEST(ServeHttpLoad, ComingAndGoingLeavesNothingBehind) {
  Server server("http", {"--board", "imx", "--codec", "mjpeg"});
  const auto comeAndGo = [&server](int times) {
    for (int i = 0; i < times; ++i) {
      Connection client(server.port());
      client.get(i % 2 == 0 ? "/stream.mjpeg" : "/snapshot.jpg");
      client.receive();
    }
    server.awaitLine("camera sleeps");
    EXPECT_EQ(status(server)["connections"], 1);
  };
  comeAndGo(20);
  const auto descriptors = server.descriptors();
  const auto threads = server.threads();
  comeAndGo(100);
  for (int i = 0; i < 50 && server.descriptors() > descriptors; ++i) {
    std::this_thread::sleep_for(milliseconds(100));  // the last connections are being closed
  }
  EXPECT_LE(server.descriptors(), descriptors);
  EXPECT_LE(server.threads(), threads);
  server.stop();
}

}  // namespace
