// Any bytes as requests to one of the two servers: the server answers with a status line, lets the
// client go, and serves the next one.
//
// Usage: requests [--rtsp] [OPTION OF LIBFUZZER...]

#include <chrono>
#include <cstring>
#include <fstream>
#include <memory>
#include <regex>
#include <string>
#include <thread>

#include <arpa/inet.h>
#include <gst/gst.h>
#include <media_backend/GstVideoBackend.h>
#include <netinet/in.h>
#include <sys/socket.h>
#include <unistd.h>

#include "Require.h"
#include "base/Board.h"
#include "camera/Camera.h"
#include "camera/LiveCamera.h"
#include "http/Server.h"
#include "rtsp/Server.h"
#include "serve/ServeOptions.h"
#include "support/TempFolder.h"

namespace {

using std::chrono::steady_clock;

// A server of the simulated board, with a still picture as its camera.
class Server {
 public:
  explicit Server(bool overRtsp) {
    options_.camera.source = folder_ / "picture.ppm";
    options_.camera.fps = 60;
    options_.encoder.codec = media_backend::GstVideoBackend::Codec::H264;
    std::ofstream(options_.camera.source) << "P6 64 48 255\n"
                                          << std::string(std::size_t{64} * 48 * 3, 'x');
    camera_ = std::make_unique<station::LiveCamera>(station::Camera::open(options_.camera));
    const media_backend::GstVideoBackend& backend = station::openBoard("imx");
    if (overRtsp) {
      rtsp_ = std::make_unique<station::RtspServer>(backend, *camera_, options_);
    } else {
      http_ = std::make_unique<station::HttpServer>(backend, *camera_, options_,
                                                    [](const station::StationError&) {});
    }
    const std::string authority = listener().authority();
    port_ = static_cast<std::uint16_t>(std::stoi(authority.substr(authority.rfind(':') + 1)));
  }

  const station::Listener& listener() const {
    return rtsp_ != nullptr ? rtsp_->listener() : http_->listener();
  }
  std::uint16_t port() const { return port_; }

 private:
  const TempFolder folder_;
  station::ServeOptions options_;
  std::unique_ptr<station::LiveCamera> camera_;
  std::unique_ptr<station::HttpServer> http_;
  std::unique_ptr<station::RtspServer> rtsp_;
  std::uint16_t port_ = 0;
};

Server* server = nullptr;  // until the process ends

// Sends the bytes while this thread serves them; returns the answer up to its end, a pause of the
// server, or a length that is enough.
std::string exchange(const std::uint8_t* bytes, std::size_t size) {
  constexpr std::size_t kEnough = 64 * 1024;
  sockaddr_in address{};
  address.sin_family = AF_INET;
  address.sin_port = htons(server->port());
  address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
  const int client = socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0);
  require(connect(client, reinterpret_cast<const sockaddr*>(&address), sizeof(address)) == 0,
          "the server takes connections");
  std::string answer;
  for (int quiet = 0; quiet < 20 && answer.size() < kEnough;) {
    const ssize_t sent = size > 0 ? send(client, bytes, size, MSG_DONTWAIT | MSG_NOSIGNAL) : 0;
    if (sent > 0) {
      bytes += sent;
      size -= static_cast<std::size_t>(sent);
    }
    const bool worked = g_main_context_iteration(nullptr, FALSE) != FALSE;
    char buffer[4096];
    const ssize_t count = recv(client, buffer, sizeof(buffer), MSG_DONTWAIT);
    if (count == 0 || (count < 0 && errno != EAGAIN)) {
      break;
    }
    answer.append(buffer, count > 0 ? static_cast<std::size_t>(count) : 0);
    if (count < 0 && !worked) {
      std::this_thread::sleep_for(std::chrono::microseconds(100));
      ++quiet;
    }
  }
  close(client);
  return answer;
}

}  // namespace

extern "C" int LLVMFuzzerInitialize(int* argc, char*** argv) {
  bool overRtsp = false;
  for (int i = 1; i < *argc; ++i) {
    overRtsp = overRtsp || std::strcmp((*argv)[i], "--rtsp") == 0;
  }
  gst_init(nullptr, nullptr);
  server = new Server(overRtsp);
  return 0;
}

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* bytes, std::size_t size) {
  // RTSP answers in the version of the request, whatever that is.
  static const std::regex kStatusLine("(RTSP|HTTP)/[0-9]+\\.[0-9]+ [1-5][0-9][0-9] [^\r\n]*\r\n");
  const std::string answer = exchange(bytes, size);
  require(answer.empty() || answer.front() == '$' ||
              std::regex_match(answer.substr(0, answer.find('\n') + 1), kStatusLine),
          "an answer begins with a status line");
  const auto patience = steady_clock::now() + std::chrono::seconds(60);
  while (server->listener().connections() > 0) {
    require(steady_clock::now() < patience, "a client that has gone is let go");
    if (!g_main_context_iteration(nullptr, FALSE)) {
      std::this_thread::sleep_for(std::chrono::microseconds(200));
    }
  }
  return 0;
}
