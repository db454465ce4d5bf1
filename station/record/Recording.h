#pragma once

#include <chrono>
#include <cstdint>
#include <memory>

#include <lumora/FrameExport.h>
#include <media_backend/GstVideoBackend.h>

#include "base/StopSignal.h"
#include "camera/Camera.h"
#include "record/AudioFeed.h"
#include "record/Progress.h"
#include "record/RecordCommand.h"
#include "record/Recorder.h"

namespace station {

// One run of the command "record". Failures throw StationError.
class Recording {
 public:
  // Opens the sources and starts the recorder. `options` outlives the recording.
  Recording(const media_backend::GstVideoBackend& backend, const RecordOptions& options);

  // Returns after the last segment is complete.
  void run();

 private:
  void recordFrames();
  void recordFrame();
  void finish();
  std::chrono::nanoseconds timeOf(std::uint64_t index) const;
  std::uint64_t nextIndex() const;
  void printSummary() const;

  const RecordOptions& options_;
  AudioFeed audio_;
  const std::unique_ptr<MetadataSource> metadata_;  // null for none
  const MisbSt0601 encoder_;
  const std::unique_ptr<Camera> camera_;
  std::shared_ptr<lumora::LumoraPicture> picture_;  // the next to record; null after the last
  const StopSignal stop_;
  SegmentStore segments_;
  Recorder recorder_;
  Progress progress_;
  const std::chrono::system_clock::time_point start_ = std::chrono::system_clock::now();
  std::chrono::steady_clock::time_point base_ = std::chrono::steady_clock::now();
  std::uint64_t index_ = 0;  // of that frame
};

}  // namespace station
