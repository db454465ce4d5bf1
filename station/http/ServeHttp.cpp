#include "http/ServeHttp.h"

#include "http/Server.h"

namespace station {

void ServeHttp::serve(const media_backend::GstVideoBackend& backend, LiveCamera& camera,
                      MainLoop& loop) {
  HttpServer server(backend, camera, options_,
                    [&loop](const StationError& error) { loop.fail(error); });
  announce(server.listener(), "/", backend, camera.options());
  loop.run(camera, options_.quiet);
}

}  // namespace station
