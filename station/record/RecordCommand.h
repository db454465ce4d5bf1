#pragma once

#include <filesystem>
#include <string>

#include "audio/AudioOptions.h"
#include "base/Command.h"
#include "base/EncoderOptions.h"
#include "base/Pipelines.h"
#include "camera/CameraOptions.h"
#include "metadata/MetadataOptions.h"
#include "record/SegmentOptions.h"

namespace station {

struct RecordOptions {
  CameraOptions camera;
  std::filesystem::path folder;
  DescriptionSettings recorder;
  double durationSeconds = 0;  // 0: until stopped
  AudioOptions audio;
  SegmentOptions segments;
  MetadataOptions metadata;
};

// The command "record": frames of a camera, paced at the frame rate, into MPEG-TS segments, until
// the duration is over, the source has ended, or Ctrl-C.
class RecordCommand : public Command {
 public:
  CLI::App& addOptions(CLI::App& program) override;
  void run() override;

 private:
  std::string board_;
  EncoderOptions encoder_;
  RecordOptions options_;
};

}  // namespace station
