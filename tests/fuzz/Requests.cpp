// Any bytes as requests to one of the two servers: the server answers with a status line, lets the
// client go, and serves the next one.
//
// Usage: requests [--rtsp] [OPTION OF LIBFUZZER...]

#include <cstring>
#include <fstream>
#include <memory>
#include <regex>
#include <string>

#include <gio/gio.h>
#include <gst/gst.h>

#include "Require.h"
#include "base/Board.h"
#include "camera/Camera.h"
#include "camera/LiveCamera.h"
#include "http/Server.h"
#include "rtsp/Server.h"
#include "serve/ServeOptions.h"
#include "support/TempFolder.h"

namespace {

// A server of the simulated board, with a still picture as its camera.
class Server {
 public:
  explicit Server(bool overRtsp) {
    station::CameraOptions options;
    options.source = folder_ / "picture.ppm";
    options.fps = 60;
    options_.encoder.codec = media_backend::GstVideoBackend::Codec::H264;
    std::ofstream(options.source) << "P6 64 48 255\n" << std::string(std::size_t{64} * 48 * 3, 'x');
    const media_backend::GstVideoBackend& backend = station::openBoard("imx");
    camera_ = std::make_unique<station::LiveCamera>(station::Camera::openFor(backend, options));
    if (overRtsp) {
      rtsp_ = std::make_unique<station::RtspServer>(backend, *camera_, nullptr, options_);
    } else {
      http_ = std::make_unique<station::HttpServer>(backend, *camera_, nullptr, options_,
                                                    [](const station::StationError&) {});
    }
    camera_->start();
  }

  const station::Listener& listener() const {
    return rtsp_ != nullptr ? rtsp_->listener() : http_->listener();
  }

 private:
  const TempFolder folder_;
  station::ServeOptions options_;
  std::unique_ptr<station::LiveCamera> camera_;
  std::unique_ptr<station::HttpServer> http_;
  std::unique_ptr<station::RtspServer> rtsp_;
};

Server* server = nullptr;  // until the process ends

// Sends the bytes while this thread serves them; returns the answer up to its end, a pause of the
// server, or a length that is enough.
std::string exchange(const std::uint8_t* bytes, std::size_t size) {
  constexpr std::size_t kEnough = 64 * 1024;
  g_autoptr(GSocketClient) client = g_socket_client_new();
  g_autoptr(GSocketConnection) connection = g_socket_client_connect_to_host(
      client, server->listener().authority().c_str(), 0, nullptr, nullptr);
  require(connection != nullptr, "the server takes connections");
  GSocket* const socket = g_socket_connection_get_socket(connection);
  g_socket_set_blocking(socket, FALSE);
  g_socket_send(socket, reinterpret_cast<const char*>(bytes), size, nullptr, nullptr);
  std::string answer;
  for (int quiet = 0; quiet < 20 && answer.size() < kEnough;) {
    const bool worked = g_main_context_iteration(nullptr, FALSE) != FALSE;
    char buffer[4096];
    g_autoptr(GError) error = nullptr;
    const gssize count = g_socket_receive(socket, buffer, sizeof(buffer), nullptr, &error);
    if (count > 0) {
      answer.append(buffer, static_cast<std::size_t>(count));
    } else if (!g_error_matches(error, G_IO_ERROR, G_IO_ERROR_WOULD_BLOCK)) {
      break;
    } else if (!worked) {
      g_usleep(100);
      ++quiet;
    }
  }
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
  const gint64 patience = g_get_monotonic_time() + 60 * G_USEC_PER_SEC;
  while (server->listener().connections() > 0) {
    require(g_get_monotonic_time() < patience, "a client that has gone is let go");
    if (!g_main_context_iteration(nullptr, FALSE)) {
      g_usleep(200);
    }
  }
  return 0;
}
