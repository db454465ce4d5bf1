// What both servers have in common: how they fail, who may come in, and what garbage does.

#include <gio/gio.h>
#include <gtest/gtest.h>

#include <fstream>
#include <list>
#include <random>
#include <regex>
#include <tuple>

#include "Connection.h"
#include "Program.h"
#include "Server.h"
#include "support/TempFolder.h"

namespace {

TEST(Serve, FailuresAreOneLine) {
  const TempFolder folder;
  const std::string clip = makeClip(folder);
  const Server other("http", {"--board", "imx"});
  const std::string taken = std::to_string(other.port());
  std::ofstream(folder / "empty") << "\n";
  using Arguments = std::vector<std::string>;
  const std::tuple<Arguments, int, const char*> rows[] = {
      {{clip, "--port", taken}, 6, "cannot serve on 127.0.0.1 port "},
      {{clip, "--codec", "av1"}, 4, "codec not usable for "},
      {{"/nowhere/clip.mkv"}, 5, "source failed: "},
      {{clip, "--bind", "localhost"}, 2, "not a numeric address: localhost"},
      {{clip, "--auth", "me"}, 2, "--auth takes USER:FILE, not \"me\""},
      {{clip, "--auth", "me:/nowhere"}, 2, "no password on the first line of /nowhere"},
      {{clip, "--auth", "me:" + folder / "empty"}, 2, "no password on the first line of "},
  };
  const Result path = run(station({"serve", "rtsp", clip, "--board", "imx", "--path", "door"}));
  EXPECT_EQ(path.exitCode, 2);
  EXPECT_NE(path.err.find("--path: the path has to begin with /"), std::string::npos) << path.err;
  for (const std::string kind : {"rtsp", "http"}) {
    for (const auto& [arguments, exitCode, text] : rows) {
      Arguments command = station({"serve", kind, "--board", "imx"});
      command.insert(command.end(), arguments.begin(), arguments.end());
      const Result result = run(command);
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

// Sends to `port` what no client should, and waits for none of it.
class Garbage {
 public:
  explicit Garbage(int port) {
    std::mt19937 random(1);
    std::string noise(100000, '\0');
    for (char& byte : noise) {
      byte = static_cast<char>(random());
    }
    const std::string rows[] = {
        noise,
        "GET / HTTP/1.1\r\nX: " + std::string(300000, 'x'),
        "GET " + std::string(300000, '/') + " HTTP/1.1\r\n\r\n",
        "POST / HTTP/1.1\r\nHost: a\r\nContent-Length: 9999999999\r\n\r\n" + noise,
        "GET / HTTP/1.1\r\nContent-Length: 4\r\nTransfer-Encoding: chunked\r\n\r\n0\r\n\r\n",
        "DESCRIBE rtsp://a/camera RTSP/1.0\r\nCSeq: 1\r\nContent-Length: 2000000000\r\n\r\n" +
            noise,
        "SETUP rtsp://a/camera/stream=99 RTSP/1.0\r\nCSeq: -1\r\nTransport: nonsense\r\n\r\n",
        "PLAY rtsp://a/camera RTSP/1.0\r\nCSeq: 1\r\nSession: 12345678\r\n\r\n",
        "OPTIONS * RTSP/1.0\r\n" + std::string(300000, 'x'),
        "$\1\xff\xff" + noise,
        "GET / HTTP/1.1\r\nHost: a\r\nAuthorization: Basic " + std::string(50000, 'A') + "\r\n\r\n",
        "G",
        "",
    };
    for (const std::string& row : rows) {
      connections_.emplace_back(port).send(row);
    }
  }

 private:
  std::list<Connection> connections_;  // left open
};

TEST(Serve, GarbageDoesNotDisturbWhoWatches) {
  Server http("http", {"--board", "imx"});
  Server rtsp("rtsp", {"--board", "imx"});
  const auto frames = [](const Result& result) { return std::stoi("0" + result.out); };
  const auto watch = [](const std::string& url) {
    return std::vector<std::string>{"ffprobe",
                                    "-v",
                                    "error",
                                    "-read_intervals",
                                    "%+6",
                                    "-rtsp_transport",
                                    "tcp",
                                    "-count_frames",
                                    "-show_entries",
                                    "stream=nb_read_frames",
                                    "-of",
                                    "csv=p=0",
                                    url};
  };
  Program httpViewer({"curl", "-sS", "--max-time", "6", "-o", "/dev/null", "-w",
                      "%{http_code} %{exitcode}", http.url() + "/stream.h264"});
  Program rtspViewer(watch(rtsp.url()));
  http.awaitLine("camera runs");
  rtsp.awaitLine("camera runs");
  const auto descriptors = http.descriptors();
  std::list<Garbage> garbage;
  for (int i = 0; i < 2; ++i) {
    garbage.emplace_back(http.port());
    garbage.emplace_back(rtsp.port());
  }
  const Result seen = rtspViewer.wait();
  EXPECT_GE(frames(seen), 6 * 30 * kLeastShare) << seen.err;
  EXPECT_EQ(seen.err, "");
  EXPECT_EQ(httpViewer.wait().out, "200 28");  // the end of its time
  garbage.clear();
  for (int i = 0; i < 50 && http.descriptors() > descriptors; ++i) {
    g_usleep(100000);
  }
  EXPECT_LE(http.descriptors(), descriptors);
  rtsp.stop();
  http.stop();
}

TEST(Serve, NoMoreClientsThanAllowed) {
  Server http("http", {"--board", "imx", "--max-clients", "2"});
  std::list<Connection> viewers;
  for (int i = 0; i < 2; ++i) {
    viewers.emplace_back(http.port()).get("/stream.h264");
    EXPECT_NE(viewers.back().receive().find("200 OK"), std::string::npos);
  }
  viewers.emplace_back(http.port()).get("/stream.h264");
  EXPECT_NE(viewers.back().receive().find("503 Service Unavailable"), std::string::npos);
  const auto descriptors = http.descriptors();
  std::list<Connection> more;
  for (int i = 0; i < 40; ++i) {
    more.emplace_back(http.port());
  }
  EXPECT_EQ(more.back().receive(), "");  // closed, so all before it have been seen to
  EXPECT_LE(http.descriptors(), descriptors + 20);
  http.stop();

  Server rtsp("rtsp", {"--board", "imx", "--max-clients", "1"});
  Connection client(rtsp.port());
  client.send("OPTIONS * RTSP/1.0\r\nCSeq: 1\r\n\r\n");
  EXPECT_NE(client.receive().find("RTSP/1.0 200 OK"), std::string::npos);
  EXPECT_EQ(Connection(rtsp.port()).receive(), "");
  rtsp.stop();
}

// A player that crashes and comes back all the time does not take the places of all others.
TEST(Serve, WhoVanishesLeavesNoSession) {
  Server rtsp("rtsp", {"--board", "imx", "--max-clients", "2"});
  const std::string request = "SETUP rtsp://127.0.0.1:" + std::to_string(rtsp.port()) +
                              "/camera/stream=0 RTSP/1.0\r\nCSeq: 1\r\n"
                              "Transport: RTP/AVP/TCP;unicast;interleaved=0-1\r\n\r\n";
  for (int client = 0; client < 5; ++client) {
    std::string answer;
    // Until the server has noticed that the one before is gone.
    for (int i = 0; i < 50 && answer.find("200 OK") == std::string::npos; ++i) {
      g_usleep(100000);
      Connection connection(rtsp.port());
      connection.send(request);
      answer = connection.receive();
    }
    EXPECT_NE(answer.find("200 OK"), std::string::npos) << client << ": " << answer;
  }
  rtsp.stop();
}

}  // namespace
