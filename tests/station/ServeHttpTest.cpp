// HTTP as clients see it: curl, ffprobe, Chromium, and a client that pauses.

#include <gtest/gtest.h>

#include <algorithm>
#include <chrono>
#include <fstream>
#include <nlohmann/json.hpp>
#include <thread>

#include "Connection.h"
#include "Program.h"
#include "Server.h"
#include "support/Command.h"
#include "support/TempFolder.h"

using nlohmann::json;

namespace {

using std::chrono::milliseconds;

json status(const Server& server) {
  return json::parse(run({"curl", "-sS", server.url() + "/status.json"}).out);
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
  };
  for (const auto& [method, path, answer, content] : rows) {
    const TempFolder folder;
    const bool isHead = std::string(method) == "HEAD";
    const Result result =
        run({"curl", "-sS", "--path-as-is", isHead ? "-I" : "-X" + std::string(method), "-o",
             folder / "body", "-w", "%{http_code} %{content_type}", server.url() + path});
    EXPECT_EQ(result.out, answer) << method << path;
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

// Chromium renders a red picture red.
TEST(ServeHttpPage, ShowsTheLivePicture) {
  if (run({"sh", "-c", "command -v chromium"}).exitCode != 0) {
    GTEST_SKIP() << "no Chromium: page not looked at";
  }
  const TempFolder folder;
  runCommand({"ffmpeg", "-v", "error", "-f", "lavfi", "-i", "color=red:size=320x180", "-frames:v",
              "1", folder / "red.png"});
  Program server(station({"serve", "http", folder / "red.png", "--board", "nvidia", "--codec",
                          "mjpeg", "--port", "0"}));
  const std::string line = server.readLine();
  const std::string url = line.substr(line.find("http:"), line.find("  ") - line.find("http:"));
  const auto look = [&](const std::string& as) {
    return run({"chromium", "--headless", "--no-sandbox", "--disable-gpu",
                "--disable-dev-shm-usage", "--user-data-dir=" + folder / "profile",
                "--virtual-time-budget=8000", as, url});
  };
  const std::string page = look("--dump-dom").out;
  for (const char* const figure : {"profile\">nvidia-nvmm<", "codec\">mjpeg<", "viewers\">1 of 32<",
                                   "Live, 320 × 180", "role=\"status\">live<"}) {
    EXPECT_NE(page.find(figure), std::string::npos) << figure << page;
  }
  look("--screenshot=" + folder / "page.png");
  const Result middle = run({"sh", "-c",
                             "ffmpeg -v error -i " + folder / "page.png" +
                                 " -vf crop=20:20:150:120,scale=1:1,format=rgb24 -f rawvideo - |"
                                 " od -An -tu1"});
  EXPECT_EQ(middle.out.substr(0, 12), " 252   0   0") << middle.err;
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
  const auto end = std::chrono::steady_clock::now() + std::chrono::seconds(3);
  while (std::chrono::steady_clock::now() < end) {
    received += client.receive();
  }
  EXPECT_GT(status(server)["streams"][0]["skipped"], 30);
  received.erase(0, received.find("\r\n\r\n") + 4);
  received.resize(received.rfind(std::string("\0\0\0\1\x09", 5)));
  std::ofstream(folder / "all.h264") << received;
  const std::string decode = "-i " + folder / "all.h264" + " -f null -";
  EXPECT_EQ(run({"sh", "-c", "ffmpeg -v error " + decode}).err, "");
  // Missing references are a matter of debugging to ffmpeg, and concealed.
  EXPECT_NE(run({"sh", "-c", "ffmpeg -v debug " + decode + " 2>&1 | grep 'rame num gap'"}).exitCode,
            0);
  server.stop();
}

}  // namespace
