#pragma once

#include <cstdint>
#include <filesystem>
#include <string>

#include <media_backend/GstVideoBackend.h>

#include "AudioReceiver.h"
#include "AudioTrack.h"

namespace station {

struct AudioOptions {
  std::string file;      // with Opus packets to receive; empty for none
  bool silence = false;  // a track of fallback frames alone
  AudioReceiver::Settings reception;
  AudioTrack::Settings track;

  bool isWanted() const { return silence || !file.empty(); }
};

struct RecordOptions {
  std::string source;  // media file
  std::filesystem::path folder;
  media_backend::GstVideoBackend::EncoderConfig encoder;
  unsigned int segmentSeconds = 60;
  bool klv = false;
  double durationSeconds = 0;  // 0: until stopped
  bool loop = true;            // play the source again after its end
  unsigned int width = 1280;
  unsigned int height = 720;
  unsigned int fps = 30;
  AudioOptions audio;
};

// The command "record": pictures of a media file, paced at the frame rate as from a camera, into
// MPEG-TS segments. Returns when the duration is over, the source has ended, or on Ctrl-C; throws
// StationError.
void record(const media_backend::GstVideoBackend& backend, const RecordOptions& requested);

}  // namespace station
