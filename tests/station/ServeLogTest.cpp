#include <gtest/gtest.h>

#include <csignal>
#include <fstream>
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
  server.stop();
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
