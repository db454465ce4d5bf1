#pragma once

#include <optional>
#include <string>

#include "audio/AudioOptions.h"
#include "base/EncoderOptions.h"
#include "camera/CameraOptions.h"
#include "metadata/MetadataOptions.h"
#include "record/RecordOptions.h"
#include "serve/ServeOptions.h"

namespace station {

// A camera and its outputs, which share each of its frames.
struct EngineOptions {
  std::string board;
  CameraOptions camera;
  AudioOptions audio;
  EncoderOptions encoder;  // that set those of the outputs
  MetadataOptions metadata;
  std::optional<RecordOptions> record;
  std::optional<ServeOptions> rtsp;
  std::optional<ServeOptions> http;
};

// Runs the camera and the outputs until Ctrl-C, a failure, the end of the recording's duration or
// of a file that does not loop. Throws StationError; segments are complete after a failure of the
// source.
void runEngine(const EngineOptions& options);

}  // namespace station
