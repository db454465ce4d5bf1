#pragma once

#include <cstdint>
#include <filesystem>
#include <string>

#include <media_backend/GstVideoBackend.h>

#include "camera/Camera.h"
#include "record/AudioReceiver.h"
#include "record/AudioTrack.h"

namespace station {

struct AudioOptions {
  std::string file;      // with Opus packets to receive; empty for none
  bool silence = false;  // a track of fallback frames alone
  AudioReceiver::Settings reception;
  AudioTrack::Settings track;

  bool isWanted() const { return silence || !file.empty(); }
};

struct RecordOptions {
  CameraOptions camera;
  std::filesystem::path folder;
  media_backend::GstVideoBackend::EncoderConfig encoder;
  unsigned int segmentSeconds = 60;
  bool klv = false;
  double durationSeconds = 0;  // 0: until stopped
  AudioOptions audio;
};

// The command "record": pictures of a camera, paced at the frame rate, into MPEG-TS segments.
// Returns when the duration is over, the source has ended, or on Ctrl-C; throws StationError.
void record(const media_backend::GstVideoBackend& backend, const RecordOptions& options);

}  // namespace station
