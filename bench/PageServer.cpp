#include "PageServer.h"

#include <memory>
#include <stdexcept>
#include <thread>

#include <simulated_board/SimulatedBoard.h>

#include "StampingCamera.h"
#include "camera/LiveCamera.h"
#include "http/Server.h"
#include "support/Profiles.h"

int servePage(const std::function<int(const std::string& url)>& client) {
  gst_init(nullptr, nullptr);
  std::string error;
  if (!simulated_board::registerElements(nullptr, "imx", error)) {
    throw std::runtime_error(error);
  }
  const media_backend::GstVideoBackend backend(imxProfile());
  station::ServeOptions options;
  options.encoder.codec = media_backend::GstVideoBackend::Codec::H264;
  options.quiet = true;
  station::LiveCamera camera(std::make_unique<StampingCamera>(backend, 1280, 720, true));
  const station::HttpServer server(backend, camera, nullptr, options,
                                   [](const station::StationError& failure) { throw failure; });
  camera.start();
  GMainLoop* const loop = g_main_loop_new(nullptr, FALSE);
  int result = EXIT_FAILURE;
  std::thread thread([&] {
    result = client("http://" + server.listener().authority() + "/");
    g_main_loop_quit(loop);
  });
  g_main_loop_run(loop);
  thread.join();
  g_main_loop_unref(loop);
  return result;
}
