// Any bytes as RTSP requests: the server answers with a status line, lets the client go, and lives
// on.

#include "rtsp/Server.h"

#include <regex>
#include <string>

#include "NetworkClient.h"
#include "StationFixture.h"

namespace {

struct Server : StationFixture {
  station::RtspServer rtsp{backend, *camera, options};
  const std::uint16_t port = [this] {
    const std::string authority = rtsp.listener().authority();
    return static_cast<std::uint16_t>(std::stoi(authority.substr(authority.rfind(':') + 1)));
  }();
};

Server& server() {
  static auto* const theServer = new Server;  // until the process ends
  return *theServer;
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* bytes, std::size_t size) {
  // The server library answers in the version that it read, whatever that is.
  static const std::regex kStatusLine("(RTSP|HTTP)/[0-9]+\\.[0-9]+ [1-5][0-9][0-9] [^\r\n]*\r\n");
  std::string answer;
  {
    NetworkClient client(server().port);
    answer = client.exchange(bytes, size);
  }
  require(answer.empty() || answer.front() == '$' ||
              std::regex_match(answer.substr(0, answer.find('\n') + 1), kStatusLine),
          "an answer begins with a status line");
  awaitGone([] { return server().rtsp.listener().connections(); });
  return 0;
}
