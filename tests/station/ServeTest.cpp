// What both servers have in common: how they fail, and who may come in.

#include <gtest/gtest.h>

#include <algorithm>
#include <chrono>
#include <csignal>
#include <filesystem>
#include <fstream>
#include <sstream>
#include <thread>
#include <tuple>
#include <utility>

#include "Program.h"
#include "Server.h"
#include "support/TempFolder.h"

namespace {

using Words = std::vector<std::string>;

TEST(Serve, FailuresAreOneLine) {
  const TempFolder folder;
  const std::string clip = makeServedClip(folder);
  const Server other("http", {"--board", "imx"});
  const std::string taken = other.url().substr(other.url().rfind(':') + 1);
  std::ofstream(folder / "empty") << "\n";
  std::ofstream(folder / "other") << "me:other realm:" << std::string(32, '0') << "\n";
  const std::tuple<Words, int, std::string> rows[] = {
      {{clip, "--port", taken}, 10, "cannot serve on 127.0.0.1 port "},
      {{clip, "--codec", "av1"}, 4, "codec not usable for "},
      {{clip, "--bind", "192.0.2.1"}, 10, "cannot serve on 192.0.2.1 port "},
      {{"/nowhere/clip.mkv"}, 5, "source failed: "},
      {{clip, "--bind", "localhost"}, 2, "not a numeric address: localhost"},
      {{clip, "--auth", ":me"}, 2, "--auth takes [USER:]FILE, not \":me\""},
      {{clip, "--auth", folder / "empty"},
       2,
       folder / "empty" + " has a line that is neither USER"},
      {{clip, "--auth", folder / "other"}, 2, "no user of the realm media-station in "},
      {{clip, "--auth", "/nowhere"}, 2, "password file /nowhere: No such file or directory"},
      {{clip, "--auth", "me:/nowhere"}, 2, "password file /nowhere: No such file or directory"},
      {{clip, "--auth", "me:" + folder / "empty"}, 2, "no password on the first line of "},
      {{clip, "--tls", "cert"}, 2, "--tls takes CERT:KEY, not \"cert\""},
      {{clip, "--tls", "/nowhere:/nowhere"}, 2, "cannot use /nowhere:/nowhere for TLS: "},
  };
  const Result path = run(station({"serve", "rtsp", clip, "--board", "imx", "--path", "door"}));
  EXPECT_EQ(path.exitCode, 2);
  EXPECT_NE(path.err.find("--path: the path has to begin with /"), std::string::npos) << path.err;
  // Each server alone has enough descriptors for its clients.
  Words limited = {"sh", "-c", "ulimit -n 1024 && exec \"$0\" \"$@\""};
  const Words both = station({"run", clip, "--board", "imx", "--rtsp", "--rtsp-port", "0", "--http",
                              "--http-port", "0", "--max-clients", "350"});
  limited.insert(limited.end(), both.begin(), both.end());
  const Result many = run(limited);
  EXPECT_EQ(many.exitCode, 2);
  EXPECT_NE(many.err.find("media-station: so many clients take"), std::string::npos) << many.err;
  for (const std::string kind : {"rtsp", "http"}) {
    for (const auto& [arguments, exitCode, text] : rows) {
      const Result result = run(station({"serve", kind, "--board", "imx"}, arguments));
      EXPECT_EQ(result.exitCode, exitCode) << kind << text;
      EXPECT_EQ(result.err.rfind("media-station: " + text, 0), 0U) << result.err;
      EXPECT_EQ(std::count(result.err.begin(), result.err.end(), '\n'), 1) << result.err;
    }
  }
}

// As systemd passes a socket: descriptor 3, for the process that the environment names.
TEST(Serve, TakesASocketOfSystemd) {
  const TempFolder folder;
  const char* const pass =
      "import os, socket, sys\n"
      "passed = socket.create_server(('127.0.0.1', 0))\n"
      "print(passed.getsockname()[1], flush=True)\n"
      "os.dup2(os.dup(passed.fileno()), 3)\n"
      "os.environ.update(LISTEN_FDS='1', LISTEN_FDNAMES='http', LISTEN_PID=str(os.getpid()))\n"
      "os.execvp(sys.argv[1], sys.argv[1:])\n";
  Words words = {"python3", "-c", pass};
  const Words command = station({"serve", "http", makeServedClip(folder), "--board", "imx"});
  words.insert(words.end(), command.begin(), command.end());
  Program program(words);
  const std::string port = program.readLine();
  const std::string url = "http://127.0.0.1:" + port + "/";
  const std::string line = program.readLine();
  EXPECT_NE(line.find(url), std::string::npos) << line << program.wait().err;
  EXPECT_EQ(run({"curl", "-sSf", "-o", folder / "status", url + "status.json"}).err, "");
  program.signal(SIGINT);
  EXPECT_EQ(program.wait().exitCode, 0);
}

// The status of a request by curl.
std::string status(const std::string& login, const std::string& url, Words more = {"--digest"}) {
  more.insert(more.begin(), {"curl", "-s", "-w", "%{http_code}", "-u", login});
  more.push_back(url + "/status.json");
  const std::string out = run(more).out;
  return out.substr(out.size() - 3);
}

// What ffprobe says of a stream.
Result probe(const std::string& login, const std::string& url) {
  return run({"ffprobe", "-v", "error", "-rtsp_transport", "tcp", "-show_entries",
              "stream=codec_name", "-of", "csv=p=0", "rtsp://" + login + "@" + url.substr(7)});
}

// One user of a file with a password, and two of a file in the format of htdigest.
TEST(Serve, ThePasswordOpens) {
  const TempFolder folder;
  std::ofstream(folder / "password") << "se:cret\r\nsecond line\n";
  const std::string add =
      "printf '%s:%s:%s\\n' \"$1\" \"$2\" "
      "\"$(printf %s \"$1:$2:$3\" | md5sum | cut -d' ' -f1)\" >>\"$0\"";
  for (const Words& user : {Words{"me", "media-station", "se:cret"},
                            Words{"you", "media-station", "other"}, Words{"he", "else", "x"}}) {
    Words command = {"sh", "-c", add, folder / "users"};
    command.insert(command.end(), user.begin(), user.end());
    run(command);
  }
  struct Row {
    const char* login;
    bool one, two;  // whether it opens with either file
  };
  for (const std::string& option : {"me:" + folder / "password", folder / "users"}) {
    const Words options = {"--board", "imx", "--auth", option};
    Server rtsp("rtsp", options);
    Server http("http", options);
    for (const auto& [login, one, two] :
         {Row{"me:se:cret", true, true}, Row{"me:secret", false, false},
          Row{"you:se:cret", false, false}, Row{"you:other", false, true},
          Row{"he:x", false, false}, Row{"me:se:cret%0D", false, false},
          Row{"me:", false, false}}) {
      const bool opens = option == folder / "users" ? two : one;
      EXPECT_EQ(status(login, http.url()), opens ? "200" : "401") << login << option;
      // ffprobe takes what is behind the last colon for a port: none in its password.
      const Result stream = probe(login, rtsp.url());
      EXPECT_EQ(stream.out, opens ? "h264\n" : "") << login << stream.err;
      EXPECT_EQ(stream.err.find("401 Unauthorized") != std::string::npos, !opens) << stream.err;
    }
    EXPECT_EQ(status("me:se:cret", http.url(), {"--basic"}), "401");  // in the clear
    rtsp.stop();
    http.stop();
  }
}

TEST(Serve, WrongGuessesAreSlowedDown) {
  const TempFolder folder;
  std::ofstream(folder / "password") << "secret\n";
  const Words options = {"--board", "imx", "--auth", "me:" + folder / "password"};
  Server rtsp("rtsp", options);
  Server http("http", options);
  std::string wanted;
  for (int guess = 0; guess < 12; ++guess) {
    wanted += guess < 10 ? "401 " : "429 ";
  }
  const Result guesses = run({"curl", "-s", "-o", "/dev/null", "-w", "%{http_code} ", "--digest",
                              "-u", "me:wrong", http.url() + "/?[1-12]"});
  EXPECT_EQ(guesses.out, wanted);
  EXPECT_EQ(status("me:secret", http.url()), "429");
  EXPECT_EQ(status("me:secret", http.url(), {"--digest", "--interface", "127.0.0.2"}), "200");
  EXPECT_EQ(status("me:secret", http.url(), {"--digest", "--retry", "3"}), "200");
  int guess = 0;
  while (guess < 40 && probe("me:wrong", rtsp.url()).err.find("401 ") != std::string::npos) {
    ++guess;
  }
  EXPECT_GE(guess, 10);
  EXPECT_NE(probe("me:secret", rtsp.url()).err.find("503 "), std::string::npos) << guess;
  for (Server* const server : {&rtsp, &http}) {
    EXPECT_NE(server->stop().find("refused: wrong user or password, the last guess for 10 s"),
              std::string::npos);
  }
}

TEST(Serve, WarnsOfAPasswordThatOthersMayRead) {
  const TempFolder folder;
  std::ofstream(folder / "password") << "secret\n";
  for (const bool isOpen : {true, false}) {
    const auto mode = isOpen ? std::filesystem::perms::others_read : std::filesystem::perms::none;
    std::filesystem::permissions(folder / "password", std::filesystem::perms::owner_read | mode);
    Server server("http", {"--board", "imx", "--auth", "me:" + folder / "password"});
    EXPECT_EQ(status("me:secret", server.url()), "200");
    EXPECT_EQ(server.stop().find("warning: other users may read") != std::string::npos, isOpen);
  }
}

TEST(Serve, TlsIsForAll) {
  const TempFolder folder;
  const std::string certificate = folder / "cert.pem";
  const std::string key = folder / "key.pem";
  run({"openssl", "req", "-x509", "-newkey", "rsa:2048", "-nodes", "-subj", "/CN=a", "-addext",
       "subjectAltName=IP:127.0.0.1", "-keyout", key, "-out", certificate});
  const std::vector<std::string> options = {"--board", "imx", "--tls", certificate + ":" + key};
  Server rtsp("rtsp", options);
  Server http("http", options);
  for (const bool isSecure : {true, false}) {
    const std::string scheme = isSecure ? "s://" : "://";
    const Result page = run({"curl", "-s", "--cacert", certificate, "-o", "/dev/null", "-w",
                             "%{http_code}", "http" + scheme + http.url().substr(8) + "/"});
    EXPECT_EQ(page.out, isSecure ? "200" : "000");
    const Result stream =
        run({"ffprobe", "-v", "error", "-rtsp_transport", "tcp", "-show_entries",
             "stream=codec_name", "-of", "csv=p=0", "rtsp" + scheme + rtsp.url().substr(8)});
    EXPECT_EQ(stream.out, isSecure ? "h264\n" : "") << stream.err;
  }
  rtsp.stop();
  http.stop();
}

TEST(Serve, PrintsAnAddressThatOthersReach) {
  const std::string own = run({"hostname", "-I"}).out;
  Server server("http", {"--board", "imx", "--bind", "0.0.0.0"});
  EXPECT_EQ(server.url().find("0.0.0.0") == std::string::npos, own.find('.') != std::string::npos)
      << server.url() << " " << own;
  EXPECT_EQ(run({"curl", "-s", "-o", "/dev/null", "-w", "%{http_code}", server.url() + "/"}).out,
            "200");
  server.stop();
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

constexpr int kRegularKeyDistance = 30;  // frames

// Distances between the key pictures that a viewer gets while others join.
std::vector<int> keyDistances(const std::string& url, int joining) {
  const TempFolder folder;
  const std::string file = folder / "video.h264";
  Program viewer({"ffmpeg", "-nostdin", "-v", "error", "-analyzeduration", "0", "-probesize",
                  "20000", "-i", url, "-an", "-c", "copy", "-flush_packets", "1", file});
  while (!std::filesystem::exists(file) || std::filesystem::file_size(file) == 0) {
    std::this_thread::sleep_for(std::chrono::milliseconds(20));
  }
  for (int i = 0; i < joining; ++i) {
    run({"ffmpeg", "-nostdin", "-v", "error", "-analyzeduration", "0", "-probesize", "20000", "-i",
         url, "-frames:v", "1", "-f", "null", "-"});
  }
  viewer.signal(SIGINT);
  viewer.wait();
  std::istringstream packets(
      run({"ffprobe", "-v", "error", "-show_entries", "packet=flags", "-of", "csv=p=0", file}).out);
  std::vector<int> distances;
  int number = 0;
  int last = 0;
  for (std::string flags; std::getline(packets, flags); ++number) {
    if (flags.front() == 'K' && number > 0) {
      distances.push_back(number - std::exchange(last, number));
    }
  }
  return distances;
}

// One that comes at a regular key picture shows nothing, and RTSP's first one joins itself.
TEST(Serve, AViewerThatJoinsGetsAKeyPicture) {
  Server rtsp("rtsp", {"--board", "nvidia"});
  Server http("http", {"--board", "imx"});
  for (const std::string& url : {rtsp.url(), http.url() + "/stream.h264"}) {
    const std::vector<int> distances = keyDistances(url, 4);
    EXPECT_GE(std::count_if(distances.begin(), distances.end(),
                            [](int distance) { return distance < kRegularKeyDistance; }),
              3)
        << url << testing::PrintToString(distances);
  }
  rtsp.stop();
  http.stop();
}

}  // namespace
