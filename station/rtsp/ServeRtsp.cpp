#include "rtsp/ServeRtsp.h"

#include "rtsp/Server.h"
#include "serve/MainLoop.h"

namespace station {

void serveRtsp(const media_backend::GstVideoBackend& backend, const ServeOptions& options) {
  LiveCamera camera(Camera::open(options.camera));
  RtspServer server(backend, camera, options);
  announce("rtsp", server.listener(), options.path, backend, options, camera.options());
  ServerLoop(camera, [&server] { server.tick(); }).run();
}

}  // namespace station
