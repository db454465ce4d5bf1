#pragma once

#include <fstream>
#include <memory>

#include <gst/gst.h>
#include <media_backend/GstVideoBackend.h>

#include "base/Board.h"
#include "camera/Camera.h"
#include "camera/LiveCamera.h"
#include "serve/ServeOptions.h"
#include "support/TempFolder.h"

// What a server needs: a simulated board, and a still picture as its camera.
struct StationFixture {
  StationFixture() {
    std::ofstream picture(options.camera.source, std::ios::binary);
    picture << "P6 64 48 255\n" << std::string(std::size_t{64} * 48 * 3, 'x');
    picture.close();
    options.encoder.codec = media_backend::GstVideoBackend::Codec::H264;
    options.camera.fps = 60;
    camera = std::make_unique<station::LiveCamera>(station::Camera::open(options.camera));
  }

  static const media_backend::GstVideoBackend& initialise() {
    gst_init(nullptr, nullptr);
    return station::openBoard("imx");
  }

  const media_backend::GstVideoBackend& backend = initialise();
  const TempFolder folder;
  station::ServeOptions options = [this] {
    station::ServeOptions result;
    result.camera.source = folder / "picture.ppm";
    return result;
  }();
  std::unique_ptr<station::LiveCamera> camera;
};
