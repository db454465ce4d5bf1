// Any bytes as HTTP requests: the server answers by the rules, lets the client go, and lives on.

#include "http/Server.h"

#include <map>
#include <regex>
#include <string>

#include "NetworkClient.h"
#include "StationFixture.h"

namespace {

struct Server : StationFixture {
  station::HttpServer http{backend, *camera, options, [](const station::StationError&) {}};
  const std::uint16_t port = [this] {
    const std::string authority = http.listener().authority();
    return static_cast<std::uint16_t>(std::stoi(authority.substr(authority.rfind(':') + 1)));
  }();
};

Server& server() {
  static auto* const theServer = new Server;  // until the process ends
  return *theServer;
}

// The status that a plain request must have, 0 if this is none.
int expectedStatus(const std::string& request) {
  // No empty or dotted part of the path, which would be taken out of it.
  static const std::regex kPlain(
      "([A-Z]{3,7}) (/|(?:/[a-z0-9]+(?:\\.[a-z0-9]+)*)+) HTTP/1\\.[01]\r\nHost: [a-z]+\r\n\r\n");
  static const std::map<std::string, int> kPaths = {{"/", 200},
                                                    {"/page.css", 200},
                                                    {"/page.js", 200},
                                                    {"/icon.svg", 200},
                                                    {"/status.json", 200},
                                                    {"/metrics", 200},
                                                    {"/stream.h264", 200},
                                                    {"/stream.mjpeg", 200},
                                                    {"/snapshot.jpg", 200}};
  std::smatch match;
  if (!std::regex_match(request, match, kPlain) || match[1] == "CONNECT") {
    return 0;
  }
  if (match[1] != "GET" && match[1] != "HEAD") {
    return 405;
  }
  const auto path = kPaths.find(match[2]);
  return path != kPaths.end() ? path->second : 404;
}

void checkAnswer(const std::string& request, const std::string& answer) {
  static const std::regex kStatusLine("HTTP/1\\.[01] ([1-5][0-9][0-9]) [^\r\n]*\r\n");
  const int expected = expectedStatus(request);
  if (answer.empty()) {
    return;  // not a whole request, or a picture that is still being made
  }
  std::smatch match;
  const std::string line = answer.substr(0, answer.find('\n') + 1);
  require(std::regex_match(line, match, kStatusLine), "an answer begins with a status line");
  require(expected == 0 || std::stoi(match[1]) == expected, "the status of a plain request");
  require(expected != 200 ||
              answer.find("\r\nX-Content-Type-Options: nosniff\r\n") != std::string::npos,
          "every answer carries the protective headers");
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* bytes, std::size_t size) {
  const std::string request(reinterpret_cast<const char*>(bytes), size);
  {
    NetworkClient client(server().port);
    checkAnswer(request, client.exchange(bytes, size));
  }
  awaitGone([] { return server().http.listener().connections(); });
  return 0;
}
