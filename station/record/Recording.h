#pragma once

#include <chrono>
#include <cstdint>
#include <functional>
#include <optional>

#include <media_backend/GstVideoBackend.h>

#include "camera/LiveCamera.h"
#include "record/AudioFeed.h"
#include "record/Progress.h"
#include "record/RecordOptions.h"
#include "record/Recorder.h"

namespace station {

// The output of a live camera, and of its audio, into segments. A failure stops the camera.
//
// Threads: one thread at a time, beside the camera's.
class Recording {
 public:
  // Starts the recorder and subscribes. The other arguments outlive the recording. `onEnd` is
  // called on the camera's thread after the last frame of the duration. Throws StationError.
  Recording(const media_backend::GstVideoBackend& backend, LiveCamera& camera, AudioFeed& audio,
            const RecordOptions& options, std::function<void()> onEnd);

  // Takes no more frames, completes the last segment and prints the summary. Throws StationError.
  void finish();

  // Whether everything has been recorded; after finish().
  bool isComplete() const { return recorder_.statistics().isComplete(); }

 private:
  void record(const CameraFrame& frame);
  std::chrono::nanoseconds timeOf(std::uint64_t index) const;
  void printSummary() const;

  const RecordOptions& options_;
  const FrameRate rate_;
  const std::uint64_t limit_;  // frames
  const std::function<void()> onEnd_;
  AudioFeed& audio_;
  SegmentStore segments_;
  Recorder recorder_;
  Progress progress_;
  std::optional<std::uint64_t> first_;                    // number of the first frame
  std::uint64_t end_ = 0;                                 // frames since, up to the last one
  std::optional<LiveCamera::Subscription> subscription_;  // after what it uses
};

}  // namespace station
