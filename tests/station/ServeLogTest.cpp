#include <gtest/gtest.h>

#include <csignal>
#include <fstream>
#include <iterator>
#include <regex>
#include <string>
#include <vector>

#include "Program.h"
#include "Server.h"
#include "support/Clip.h"
#include "support/TempFolder.h"

namespace {

using Words = std::vector<std::string>;

// One request by curl; returns the client's address in the server's words.
std::string request(const std::string& url, Words arguments) {
  arguments.insert(arguments.begin(), {"curl", "-s", "-o", "/dev/null", "-w", "%{local_port}"});
  arguments.push_back(url);
  return "127.0.0.1:" + run(arguments).out;
}

TEST(ServeLog, SaysWhoComesAndWhyTheyAreRefused) {
  const TempFolder folder;
  std::ofstream(folder / "password") << "secret\n";
  Server server("http", {"--board", "imx", "--auth", "me:" + folder / "password"});
  struct Case {
    Words arguments;
    Words events;
  };
  for (const Case& c :
       {Case{{"--digest", "-u", "me:secret"}, {"connected", "left"}},
        Case{{"--digest", "-u", "me:wrong"},
             {"connected", "refused: wrong user or password", "left"}},
        Case{{"-H", "Host: a"},
             {"connected", "refused: asks for a host that is not this one (--host)", "left"}},
        Case{{"-H", "Transfer-Encoding: x"},
             {"connected", "disconnected: its request may have a body"}}}) {
    const std::string client = request(server.url() + "/", c.arguments);
    for (const std::string& event : c.events) {
      server.awaitLine(client + " " + event);
    }
  }
  // What a client does, however often, does not fill the log; the figures have all of it.
  constexpr int kRefused = 100;
  request(server.url() + "/?[1-" + std::to_string(kRefused) + "]", {"-H", "Host: a"});
  const std::string metrics =
      run({"curl", "-s", "--digest", "-u", "me:secret", server.url() + "/metrics"}).out;
  EXPECT_NE(metrics.find("\nmedia_station_http_refused_total{reason=\"host\"} " +
                         std::to_string(kRefused + 1) + "\n"),
            std::string::npos)
      << metrics;
  const std::string log = server.stop();
  const std::regex written("refused: asks for a host"),
      leftOut("(\\d+) more lines left out: refused, host");
  const auto lines = std::distance(std::sregex_iterator(log.begin(), log.end(), written), {});
  EXPECT_LE(lines, kRefused / 2);
  int all = static_cast<int>(lines);
  for (auto found = std::sregex_iterator(log.begin(), log.end(), leftOut);
       found != std::sregex_iterator(); ++found) {
    all += std::stoi((*found)[1]);
  }
  EXPECT_EQ(all, kRefused) << log;
}

TEST(ServeLog, QuietIsQuiet) {
  const TempFolder folder;
  makeClip(folder / "clip.mp4", "320x180", 30, 60);
  Program program(
      station({"serve", "http", folder / "clip.mp4", "--board", "imx", "--port", "0", "--quiet"}));
  const std::string line = program.readLine();
  const std::size_t url = line.find("http://");
  request(line.substr(url, line.find(' ', url) - url) + "snapshot.jpg", {});
  program.signal(SIGINT);
  EXPECT_EQ(program.wait().err, "");
}

}  // namespace
