#pragma once

#include <functional>
#include <memory>
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
  // The options that a part depends on, as text: what differs has changed.
  struct Texts {
    std::string board;
    std::string camera;  // with its audio and metadata, of all outputs
    std::string record;
    std::string rtsp;
    std::string http;
  };

  std::string board;
  CameraOptions camera;
  AudioOptions audio;
  EncoderOptions encoder;  // that set those of the outputs
  MetadataOptions metadata;
  std::optional<RecordOptions> record;
  std::optional<ServeOptions> rtsp;
  std::optional<ServeOptions> http;
  Texts texts;  // only for options that are read again

  bool isKlvWanted() const { return (record && record->recorder.klv) || (rtsp && rtsp->klv); }
};

// Reads the options again. Throws StationError (Usage).
using ReadOptions = std::function<std::shared_ptr<const EngineOptions>()>;

// Runs the camera and the outputs until Ctrl-C, a failure, the end of the recording's duration or
// of a file that does not loop. SIGHUP calls `readAgain`, if there is one: outputs whose options
// have changed end and begin again, and all of them if the camera's have. What does not begin goes
// on with the options of before. Throws StationError; segments are complete after a failure of the
// source.
void runEngine(std::shared_ptr<const EngineOptions> options, const ReadOptions& readAgain = {});

}  // namespace station
