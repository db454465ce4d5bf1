#include "http/ServeHttp.h"

#include "http/Server.h"
#include "serve/MainLoop.h"

namespace station {

void serveHttp(const media_backend::GstVideoBackend& backend, const ServeOptions& options) {
  LiveCamera camera(Camera::open(options.camera));
  HttpServer server(backend, camera, options);
  announce("http", server.listener(), "/", backend, options, camera.options());
  ServerLoop(camera, [&server] { server.tick(); }).run();
}

}  // namespace station
