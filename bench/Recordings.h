#pragma once

#include <cstdlib>
#include <stdexcept>
#include <string>

#include <benchmark/benchmark.h>
#include <media_backend/GstVideoBackend.h>

#include "support/Profiles.h"

// What gst-launch-1.0 takes to do the same as media-station on the simulated i.MX board.

struct Format {
  int width;
  int height;
  std::string fps;
};

// Colour bars without a moving part: an encoder has the same to do with them from either camera.
inline std::string testPicture(const Format& format, const char* caps) {
  return " pattern=smpte100 ! capsfilter caps=video/x-raw," + std::string(caps) +
         "width=" + std::to_string(format.width) + ",height=" + std::to_string(format.height) +
         ",framerate=" + format.fps + "/1 ";
}

// The file that a camera of media-station shows.
inline std::string drawPicture(const Format& format, const std::string& folder) {
  const std::string file = folder + "/picture.png";
  const std::string command = "gst-launch-1.0 -q videotestsrc num-buffers=1" +
                              testPicture(format, "format=RGB,") +
                              "! pngenc ! filesink location=" + file;
  if (std::system(command.c_str()) != 0) {
    throw std::runtime_error("failed: " + command);
  }
  return file;
}

// The same in a pipeline.
inline std::string liveSource(const Format& format) {
  return "videotestsrc is-live=true" +
         testPicture(format, "format=NV12,interlace-mode=progressive,");
}

inline const media_backend::GstVideoBackend& imxBackend() {
  static const media_backend::GstVideoBackend backend(imxProfile());
  return backend;
}

inline media_backend::GstVideoBackend::EncoderConfig h264() {
  media_backend::GstVideoBackend::EncoderConfig config;
  config.codec = media_backend::GstVideoBackend::Codec::H264;
  return config;
}

// gst-launch-1.0 with the simulated board, up to its pipeline.
inline std::string gstLaunch() {
  return std::string("env GST_PLUGIN_PATH=") + BOARD_FOLDER +
         " SIMULATED_BOARD=imx gst-launch-1.0 -q ";
}

inline std::string quoted(std::string pipeline) {
  for (std::size_t at = 0; (at = pipeline.find('(', at)) != std::string::npos; at += 2) {
    pipeline.insert(at, 1, '\\');
  }
  return pipeline;
}

// The recorder from behind its application source on.
inline std::string recorder(const std::string& folder) {
  const std::string pipeline = imxBackend().recorderPipeline(h264(), 2, false, false);
  return quoted(pipeline.substr(pipeline.find('!'))) + " location=" + folder + "/segment%d.ts ";
}
