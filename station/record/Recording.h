#pragma once

#include <chrono>
#include <cstdint>
#include <functional>
#include <mutex>
#include <optional>

#include <media_backend/GstVideoBackend.h>

#include "base/Metrics.h"
#include "camera/LiveCamera.h"
#include "record/AudioFeed.h"
#include "record/Progress.h"
#include "record/RecordOptions.h"
#include "record/Recorder.h"

namespace station {

// The output of a live camera, and of its audio, into segments. A failure stops the camera. While
// the camera is lost, the last segment is complete; the recording goes on with a new one.
//
// Threads: one thread at a time, beside the camera's.
class Recording {
 public:
  // Starts the recorder and subscribes. Camera, audio and hook outlive the recording. `onEnd` is
  // called on the camera's thread after the last frame of the duration. Throws StationError.
  Recording(const media_backend::GstVideoBackend& backend, LiveCamera& camera, AudioFeed& audio,
            SegmentHook& hook, const RecordOptions& options, std::function<void()> onEnd);

  // Takes no more frames, completes the last segment and prints the summary. Throws StationError.
  void finish();

  // Whether everything has been recorded; after finish().
  bool isComplete() const { return interruptions_ == 0 && statistics().isComplete(); }

 private:
  void record(const CameraFrame& frame);
  void write(const CameraFrame& frame);
  void startRecorder();
  void completeRecorder();
  Recorder::Statistics statistics() const;
  Metrics::Figures figures() const;
  std::chrono::nanoseconds timeOf(std::uint64_t index) const;
  void printSummary() const;

  const media_backend::GstVideoBackend& backend_;
  const RecordOptions options_;
  const FrameRate rate_;
  const std::uint64_t limit_;  // frames
  const std::function<void()> onEnd_;
  AudioFeed& audio_;
  SegmentStore segments_;
  const Recorder::Settings settings_;
  mutable std::mutex mutex_;           // of the next two
  std::optional<Recorder> recorder_;   // none while the camera is lost
  Recorder::Statistics completed_{};   // of earlier recorders
  std::uint64_t interruptions_ = 0;    // times that the camera was lost
  std::uint64_t completedFrames_ = 0;  // of the time that they recorded
  Progress progress_;
  std::optional<std::uint64_t> begin_;                    // number of the first frame
  std::optional<std::uint64_t> first_;                    // likewise, of this recorder
  std::uint64_t end_ = 0;                                 // frames since, up to the last one
  std::optional<LiveCamera::Subscription> subscription_;  // after what it uses
  std::optional<Metrics::Publication> metrics_;
};

}  // namespace station
